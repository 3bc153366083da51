#pragma once

#include <rapidjson/writer.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

/// @file
/// The writer of the JSON reports.

namespace Brelo::Impl {

/// A stream for RapidJSON that collects characters and gives them to a std::ostream in blocks.
class BufferedOStream {
 public:
  using Ch = char;

  explicit BufferedOStream(std::ostream& stream) : stream_(stream), buffer_(16384) {}

  /// Makes room, for `PutUnsafe`.
  void Reserve(std::size_t count) {
    if (count <= buffer_.size() - used_) return;
    Flush();
    if (count > buffer_.size()) buffer_.resize(count);
  }
  void PutUnsafe(char c) { buffer_[used_++] = c; }
  void Put(char c) {
    Reserve(1);
    PutUnsafe(c);
  }
  void Flush() {
    stream_.write(buffer_.data(), static_cast<std::streamsize>(used_));
    used_ = 0;
  }

 private:
  std::ostream& stream_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
};

}  // namespace Brelo::Impl

namespace rapidjson {

// How the writer makes room once for a string or a number, in place of once for each character.
template <>
inline void PutReserve(Brelo::Impl::BufferedOStream& stream, std::size_t count) {
  stream.Reserve(count);
}
template <>
inline void PutUnsafe(Brelo::Impl::BufferedOStream& stream, char c) {
  stream.PutUnsafe(c);
}

}  // namespace rapidjson

namespace Brelo::Impl {

class JsonWriter : public rapidjson::Writer<BufferedOStream> {
 public:
  explicit JsonWriter(std::ostream& stream)
      : rapidjson::Writer<BufferedOStream>(buffered_), buffered_(stream) {}

  using Writer::Key;
  using Writer::String;
  void Key(std::string const& text) { Writer::Key(text.data(), length(text)); }
  void String(std::string const& text) { Writer::String(text.data(), length(text)); }

  void flush() { buffered_.Flush(); }

 private:
  static rapidjson::SizeType length(std::string const& text) {
    return static_cast<rapidjson::SizeType>(text.size());
  }

  BufferedOStream buffered_;
};

}  // namespace Brelo::Impl
