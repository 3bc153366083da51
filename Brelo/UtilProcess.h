#pragma once

#include <cstdint>
#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

/// What is known of running processes, read from the proc file system.
///
/// Nothing is kept between calls, and any thread may call. A process may go away between two
/// reads, so failure is a traced empty result; only what is called an assertion below is one.
/// Process ids are results of 0 where there is none. Forms without a handler trace through the
/// module "BreloUtil".

namespace Brelo::Util {

/// The process's name with blanks cut from both ends; a new line or a backslash in it stands there
/// as the kernel escapes it. `quiet` is for a process that may well be gone: it puts the trace of a
/// missing file at level 5 instead of 1. A name of blanks alone raises `std::out_of_range`.
BRELO_EXPORT std::string readProcTitle(Platform::DebugHandler& handler, int pid, bool quiet);
/// The same without a handler.
BRELO_EXPORT std::string readProcTitle(int pid, bool quiet);

/// When the process started, in clock ticks since the system's start, as decimal digits. With the
/// process id it names a process for good, whose id alone comes into use again. A malformed file is
/// an assertion.
BRELO_EXPORT std::string readProcStartTime(Platform::DebugHandler& handler, int pid);
/// The same without a handler.
BRELO_EXPORT std::string readProcStartTime(int pid);

/// The first word of the command line.
BRELO_EXPORT std::string readPidCmdline(Platform::DebugHandler& handler, int pid);

/// A process that has the Unix socket of that name open, which may be part of the name. An
/// abstract socket is listed with an "@" in front. Looks through every descriptor of every process,
/// as far as permissions allow: for diagnosis only.
BRELO_EXPORT std::uint32_t readSocketPid(Platform::DebugHandler& handler,
                                         std::string const& socketName);

/// The process that has the file at the absolute path `lockName` open and a record lock on it,
/// of either kind. A holder is only found if the kernel's list of locks shows its id, which it does
/// not for a lock of the open file description. Looks through the descriptors of every process
/// listed: for diagnosis only.
BRELO_EXPORT std::uint32_t readLockPid(Platform::DebugHandler& handler,
                                       std::string const& lockName);

}  // namespace Brelo::Util
