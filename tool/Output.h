#pragma once

#include <exception>
#include <string_view>

namespace Tool {

/// Whoever read standard output reads no more. There is nobody to tell: the program ends well.
class OutputClosed : public std::exception {};

/// Writes all of it to standard output at once. On a terminal, control characters other than the
/// end of a line become question marks: what a daemon sends is not to steer it. What cannot be
/// written is a `Failure`, or `OutputClosed`.
void print(std::string_view text);

}  // namespace Tool
