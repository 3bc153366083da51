#pragma once

#include <rapidjson/writer.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <ostream>
#include <string>
#include <utility>

/// @file
/// The writer of the JSON reports.

namespace Brelo::Impl {

/// A stream for RapidJSON that collects characters and gives them to a std::ostream in blocks. It
/// checks each character and makes no room beforehand: RapidJSON counts the room for a long string
/// in 32 bits.
class BufferedOStream {
 public:
  using Ch = char;

  explicit BufferedOStream(std::ostream& stream) : stream_(stream) {}

  void Put(char c) {
    if (used_ == sizeof block_) Flush();
    block_[used_++] = c;
  }
  void Flush() { stream_.write(block_, static_cast<std::streamsize>(std::exchange(used_, 0))); }

 private:
  std::ostream& stream_;
  std::size_t used_ = 0;
  char block_[16384];
};

/// Throws where there is no memory: RapidJSON's own allocators return null, which its stack
/// follows.
struct ThrowingAllocator {
  static constexpr bool kNeedFree = true;

  void* Malloc(std::size_t size) { return size == 0 ? nullptr : ::operator new(size); }
  void* Realloc(void* memory, std::size_t oldSize, std::size_t newSize) {
    void* const moved = Malloc(newSize);
    if (oldSize != 0) std::memcpy(moved, memory, std::min(oldSize, newSize));
    Free(memory);
    return moved;
  }
  static void Free(void* memory) { ::operator delete(memory); }
};

class JsonWriter : public rapidjson::Writer<BufferedOStream, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                            ThrowingAllocator> {
 public:
  explicit JsonWriter(std::ostream& stream) : Writer(buffered_), buffered_(stream) {}

  using Writer::Key;
  using Writer::String;
  void Key(std::string const& text) { Writer::Key(text.data(), length(text)); }
  void String(std::string const& text) { Writer::String(text.data(), length(text)); }

  void flush() { buffered_.Flush(); }

  /// What writes a part of the document has one in its scope: an exception that leaves it leaves
  /// the document broken.
  class Part {
   public:
    explicit Part(JsonWriter& writer) : writer_(writer) {}
    Part(Part const&) = delete;
    Part& operator=(Part const&) = delete;
    ~Part() {
      if (std::uncaught_exceptions() > exceptions_) writer_.broken_ = true;
    }

   private:
    JsonWriter& writer_;
    int exceptions_ = std::uncaught_exceptions();
  };
  /// Nothing can complete the document any more.
  bool broken() const { return broken_; }

 private:
  static rapidjson::SizeType length(std::string const& text) {
    return static_cast<rapidjson::SizeType>(text.size());
  }

  BufferedOStream buffered_;
  bool broken_ = false;
};

}  // namespace Brelo::Impl
