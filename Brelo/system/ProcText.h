#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

/// What the proc file system's texts say.
///
/// Nothing here opens a file or traces, and any text at all is good input: processes choose their
/// names and the names of their sockets, and may go away in the middle of a text.
namespace Brelo::Impl {

/// The process name in a "status" text; none if the stream ends or fails before it. A name of
/// white space alone raises `std::out_of_range`.
std::optional<std::string> titleOf(std::istream& status);

/// What follows the command in a "stat" text, whatever blanks and parentheses the command has;
/// empty if nothing does.
std::string fieldsBehindCommand(std::string const& stat);

std::vector<std::string> splitAtBlanks(std::string text);

/// The inode's field in a line of "net/unix" that ends in a blank-free path; empty if the line
/// has too few fields.
std::string inodeField(std::string const& line);

/// The number that `text` begins with; 0 if there is none, or if 32 bits do not hold it.
std::uint32_t toU32(std::string const& text);

/// Whether the digits of a process id occur in a "locks" text. They may belong to another field
/// or to a longer number.
bool mayHoldLock(std::string const& locks, std::string const& pid);

/// Whether an "fdinfo" text lists a record lock of either kind.
bool listsLock(std::string const& fdinfo);

/// The words of a "cmdline" text with a blank after each.
std::string commandLine(std::string cmdline);

}  // namespace Brelo::Impl
