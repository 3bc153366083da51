#pragma once

#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

/// Making and removing chains of directories. Any thread may call; what has no handler of its own
/// traces through the module "BreloUtil". Negative results come with the `errno` of the system.

namespace Brelo::Util {

/// Makes the directory and those above it that are missing, with exactly those permissions,
/// whatever the umask; what cannot have them is traced at level 1 and left as the umask made it.
/// Returns 0, also if the path exists already, as whatever; its mode is left alone then. A link
/// that another user puts in the place of a directory just made is not followed: what it leads to
/// keeps its mode. Fails with ENOENT on a path that has nothing left to begin with, as an empty
/// one.
BRELO_EXPORT int mkpath(std::string const& path, unsigned int mode);

/// Removes the directories named by the end `trailingPath` of `absolutePath`, deepest first, and
/// returns 0. One that is missing counts as removed; at the first that cannot be removed, as one
/// with something in it, it stops and returns -1. A `trailingPath` that is not a proper end of
/// `absolutePath`, compared as text, is an assertion.
BRELO_EXPORT int trimpath(std::string const& absolutePath, std::string const& trailingPath);

/// The process's working directory. A failure throws a `RuntimeException`.
BRELO_EXPORT std::string getCwd(Platform::DebugHandler& handler);

}  // namespace Brelo::Util
