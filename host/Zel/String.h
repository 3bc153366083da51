#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace Zel {

/// The host's immutable text value.
///
/// Made from the standard string types and readable as one. An empty String has no
/// characters to point at: `charPtr()` is null then, so a caller that needs a C string
/// goes through `str()`.
class String {
 public:
  String() = default;
  String(char const* text) : text_(text == nullptr ? "" : text) {}
  String(std::string text) : text_(std::move(text)) {}
  String(std::string_view text) : text_(text) {}

  std::string const& str() const { return text_; }
  char const* charPtr() const { return text_.empty() ? nullptr : text_.c_str(); }
  std::size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }

  bool operator==(String const& other) const { return text_ == other.text_; }
  bool operator!=(String const& other) const { return text_ != other.text_; }
  bool operator<(String const& other) const { return text_ < other.text_; }

 private:
  std::string text_;
};

inline std::ostream& operator<<(std::ostream& stream, String const& text) {
  return stream << text.str();
}

}  // namespace Zel

template <>
struct std::hash<Zel::String> {
  std::size_t operator()(Zel::String const& text) const {
    return std::hash<std::string>()(text.str());
  }
};
