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
  String(char const* text) : text_(text == nullptr ? "" : text) {}  ///< empty for null
  String(std::string text) : text_(std::move(text)) {}              ///< NUL characters included
  String(std::string_view text) : text_(text) {}                    ///< NUL characters included

  std::string const& str() const { return text_; }  ///< lives as long as this value
  /// Null if it is empty.
  char const* charPtr() const { return text_.empty() ? nullptr : text_.c_str(); }
  std::size_t size() const { return text_.size(); }  ///< in bytes
  bool empty() const { return text_.empty(); }       ///< no bytes

  bool operator==(String const& other) const { return text_ == other.text_; }  ///< by bytes
  bool operator!=(String const& other) const { return text_ != other.text_; }  ///< by bytes
  bool operator<(String const& other) const { return text_ < other.text_; }    ///< by bytes

 private:
  std::string text_;
};

/// Writes `str()`.
inline std::ostream& operator<<(std::ostream& stream, String const& text) {
  return stream << text.str();
}

}  // namespace Zel

namespace std {

/// By the bytes.
template <>
struct hash<Zel::String> {
  /// As that of `str()`.
  std::size_t operator()(Zel::String const& text) const {
    return std::hash<std::string>()(text.str());
  }
};

}  // namespace std
