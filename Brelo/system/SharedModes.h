#pragma once

#include <sys/types.h>

#include <string>

/// Files and directories that other users share: they get their modes through descriptors, so that
/// neither a link that another user puts in their place nor the umask has a say.
namespace Brelo::Impl {

/// Gives the directory itself that mode. What a link leads to, what is no directory, and a last
/// name of dots, which nobody makes, keep theirs. Traced at level 1 if it cannot be done.
void directoryModeIs(std::string path, mode_t mode);

}  // namespace Brelo::Impl
