#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace Tool {

/// What a daemon has answered to one request: the text, or else why there is none.
struct Answer {
  std::string text;
  std::optional<std::string> error;
};

/// Takes the bytes of a framed connection apart into answers (doc/observe/protocol.md).
///
/// It believes nothing: a length of more digits than there can be, a line that is too long or of an
/// unknown kind, an answer that is larger than the bound are a `Failure`, after which the
/// connection is of no use any more.
class Answers {
 public:
  static constexpr std::size_t lineMax = 4096;  ///< bytes of a line between the pieces

  /// Answers that have not been taken have at most so many bytes together.
  explicit Answers(std::size_t bytesMax) : bytesMax_(bytesMax) {}

  /// The bytes that have been received next.
  void feed(std::string_view bytes);
  /// The next whole answer, if it is there.
  std::optional<Answer> take();
  /// Whether the daemon has agreed to frame its answers.
  bool framed() const { return framed_; }

 private:
  void handleLine(std::string_view line);
  void handleLength(std::string_view digits);
  void handleEnd(std::optional<std::string> error);
  void countIn(std::size_t bytes);

  std::size_t bytesMax_;
  std::size_t bytes_ = 0;  // of `whole_` and `text_`
  bool framed_ = false;
  std::string line_;           // that has not ended yet
  std::size_t pieceLeft_ = 0;  // bytes of the piece that are still to come
  std::string text_;           // of the answer that has not ended yet
  std::deque<Answer> whole_;
};

}  // namespace Tool
