#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "Descriptor.h"

namespace Tool {

/// Whoever read standard output reads no more. There is nobody to tell: the program ends well.
class OutputClosed : public std::exception {};

/// Writes all of it to standard output at once. On a terminal, control characters other than the
/// end of a line become question marks: what a daemon sends is not to steer it. What cannot be
/// written is a `Failure`, or `OutputClosed`.
void print(std::string_view text);

/// A file that is written anew from the beginning, or standard output for "-".
class OutputFile {
 public:
  explicit OutputFile(std::string path);
  /// Writes all of it at once, or throws as `print`.
  void write(std::string_view text);

 private:
  std::string path_;
  Descriptor descriptor_;
};

}  // namespace Tool
