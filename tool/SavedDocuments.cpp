#include "SavedDocuments.h"

#include "Failure.h"
#include "Text.h"

namespace Tool {

void SavedDocuments::feed(std::string_view bytes) {
  constexpr std::size_t documentMax = std::size_t{256} << 20;
  while (!bytes.empty()) {
    if (depth_ == 0) {
      std::size_t const start = bytes.find_first_not_of(" \t\r\n");
      if (start == std::string_view::npos) return;
      bytes.remove_prefix(start);
      if (bytes.front() != '{') {
        throw Failure("this is no file of documents; \"" + printable(bytes.substr(0, 40)) +
                      "\" stands in it");
      }
    }
    std::size_t const end = endIn(bytes);
    if (end > documentMax - text_.size()) throw Failure("a document is larger than 256 MiB");
    text_.append(bytes.substr(0, end));
    bytes.remove_prefix(end);
    if (depth_ > 0) return;
    each_(text_);
    text_.clear();
  }
}

void SavedDocuments::finish() const {
  if (depth_ > 0) throw Failure("the last document is not whole");
}

/// How much of the bytes belongs to the present document.
std::size_t SavedDocuments::endIn(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    char const c = bytes[i];
    if (quoted_) {
      if (escaped_) {
        escaped_ = false;
      } else if (c == '\\') {
        escaped_ = true;
      } else if (c == '"') {
        quoted_ = false;
      }
    } else if (c == '"') {
      quoted_ = true;
    } else if (c == '{' || c == '[') {
      ++depth_;
    } else if ((c == '}' || c == ']') && --depth_ == 0) {
      return i + 1;
    }
  }
  return bytes.size();
}

}  // namespace Tool
