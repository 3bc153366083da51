#pragma once

#include <cstdint>
#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

/// Small operations on files with one policy for failure: it is traced through the handler given,
/// and the result says so; what throws says so below.
///
/// Nothing is kept between calls, and any thread may call. `touch` and `fileWrite` give a file that
/// they make exactly the mode 0666, whatever the umask, but for one made through a link to nothing;
/// one that exists keeps its own.

namespace Brelo::Util {

/// Makes an empty file unless there is one, whose contents and times are left alone. False if it
/// cannot be opened or closed, as a FIFO that nobody reads. Does not wait for a reader.
BRELO_EXPORT bool touch(Platform::DebugHandler& handler, std::string const& path);

/// Makes the file, or replaces its contents, with a single write. A short write is traced and is
/// no failure. A failure throws a `RuntimeException` whose text is `data`, unless `noThrow`.
BRELO_EXPORT void fileWrite(Platform::DebugHandler& handler, std::string const& path,
                            std::string const& data, bool noThrow);

/// The contents up to the first NUL byte; empty if they cannot be read, and perhaps a part of
/// them if that fails half way. `traceFailure` is for a file that should be there.
BRELO_EXPORT std::string fileRead(Platform::DebugHandler& handler, std::string const& path,
                                  bool traceFailure);

/// False also if the file cannot be looked at.
BRELO_EXPORT bool fileExists(Platform::DebugHandler& handler, std::string const& path);
/// True if the file is gone, also if it was never there.
BRELO_EXPORT bool fileRemove(Platform::DebugHandler& handler, std::string const& path);

/// In bytes; 0 also on failure.
BRELO_EXPORT std::uint64_t fileSize(Platform::DebugHandler& handler, std::string const& path);
/// The same of an open file.
BRELO_EXPORT std::uint64_t fileSize(Platform::DebugHandler& handler, int fd);
/// `header + entries * entrySize`. A sum beyond 64 bits throws a `RuntimeException`.
BRELO_EXPORT std::uint64_t fileSizeHelper(unsigned long entries, unsigned long entrySize,
                                          unsigned long header);

/// `ftruncate(fd, size)`, with its result and its `errno`; `path` is for the trace.
BRELO_EXPORT int truncate(Platform::DebugHandler& handler, std::string const& path, int fd,
                          long size);

/// A file format's magic number as the text that it starts its files with: the bytes in memory
/// order, up to the first zero.
BRELO_EXPORT std::string decodeMagic(unsigned long magic);

}  // namespace Brelo::Util
