#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Tool {

/// The JSON objects that stand one after the other in a file, whatever their lines; each is given
/// as text. One of them is in memory at a time, and has at most 256 MiB.
class SavedDocuments {
 public:
  using Each = std::function<void(std::string_view document)>;
  explicit SavedDocuments(Each each) : each_(std::move(each)) {}

  /// What the file has next. What is neither an object nor blank is a `Failure`.
  void feed(std::string_view bytes);
  /// At the file's end: a `Failure` if a document has none.
  void finish() const;

 private:
  std::size_t endIn(std::string_view bytes);

  Each each_;
  std::string text_;  // of the document that has not ended yet
  int depth_ = 0;     // of objects and arrays
  bool quoted_ = false;
  bool escaped_ = false;
};

}  // namespace Tool
