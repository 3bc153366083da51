#pragma once

#include <ostream>
#include <streambuf>
#include <string>
#include <utility>

namespace Brelo::Impl {

/// An output stream into a string, which is taken out without a copy. It throws where there is no
/// memory: a std::ostringstream keeps silent, and what it holds is cut short.
class StringStream : public std::ostream {
 public:
  StringStream() : std::ostream(nullptr) {
    rdbuf(&buffer_);
    exceptions(std::ios::badbit);
  }

  /// What was written since the last time.
  std::string take() { return std::exchange(buffer_.text, std::string()); }

 private:
  class Buffer : public std::streambuf {
   public:
    std::string text;

   protected:
    std::streamsize xsputn(char const* characters, std::streamsize count) override {
      text.append(characters, static_cast<std::size_t>(count));
      return count;
    }
    int_type overflow(int_type character) override {
      if (!traits_type::eq_int_type(character, traits_type::eof())) {
        text.push_back(traits_type::to_char_type(character));
      }
      return traits_type::not_eof(character);
    }
  };

  Buffer buffer_;
};

}  // namespace Brelo::Impl
