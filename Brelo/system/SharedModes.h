#pragma once

#include <sys/types.h>

#include <string>

/// Files and directories that other users share, with exact modes. These are set through
/// descriptors, so that neither the umask nor a link that another user puts in their place has a
/// say; the process's umask is never touched.
///
/// For a moment a new one has what the umask leaves it, and keeps that where a mode cannot be set,
/// as on a file system without modes: for a directory that is traced at level 1.
namespace Brelo::Impl {

/// Opens the file with the `flags` of open(2), or makes it with the mode 0666; through a link to
/// nothing, with what the umask leaves of that. Negative with `errno` on failure.
int openShared(std::string const& path, int flags);

/// mkdir(2) as if the umask were 0.
int makeDirectory(std::string const& path, mode_t mode);

/// Gives the directory itself that mode. What a link leads to, what is no directory, and a last
/// name of dots, which nobody makes, keep theirs.
void directoryModeIs(std::string const& path, mode_t mode);

}  // namespace Brelo::Impl
