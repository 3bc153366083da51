#include "Answers.h"

#include <algorithm>
#include <charconv>

#include "Failure.h"
#include "Text.h"

namespace Tool {

void Answers::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    if (pieceLeft_ > 0) {
      std::size_t const taken = std::min(pieceLeft_, bytes.size());
      text_.append(bytes.substr(0, taken));
      pieceLeft_ -= taken;
      bytes.remove_prefix(taken);
      continue;
    }
    std::size_t const end = std::min(bytes.find('\n'), bytes.size());
    line_.append(bytes.substr(0, end));
    if (line_.size() > lineMax) throw Failure("the answer has a line that is too long");
    if (end == bytes.size()) return;
    bytes.remove_prefix(end + 1);
    handleLine(line_);
    line_.clear();
  }
}

std::optional<Answer> Answers::take() {
  if (whole_.empty()) return std::nullopt;
  Answer answer = std::move(whole_.front());
  whole_.pop_front();
  bytes_ -= answer.text.size() + lineMax;
  return answer;
}

void Answers::handleLine(std::string_view line) {
  if (!framed_) {
    for (std::string_view const refusal : {"error: ", "!"}) {
      if (line.substr(0, refusal.size()) == refusal)
        throw Failure(printable(line.substr(refusal.size())));
    }
    if (line != "framed 1") {
      throw Failure("this is not the socket of a daemon's statistics, its answer is \"" +
                    printable(line.substr(0, 80)) + "\"");
    }
    framed_ = true;
  } else if (line == ".") {
    handleEnd(std::nullopt);
  } else if (!line.empty() && line.front() == '!') {
    handleEnd(std::string(line.substr(1)));
  } else if (!line.empty() && line.front() == '+') {
    handleLength(line.substr(1));
  } else {
    throw Failure("the answer has a line that is none of the protocol: \"" +
                  printable(line.substr(0, 80)) + "\"");
  }
}

void Answers::handleLength(std::string_view digits) {
  std::size_t length = 0;
  auto const [end, error] = std::from_chars(digits.begin(), digits.end(), length);
  if (error != std::errc() || end != digits.end()) {
    throw Failure("the answer has a piece of no length: \"" + printable(digits.substr(0, 80)) +
                  "\"");
  }
  countIn(length);
  pieceLeft_ = length;
}

void Answers::handleEnd(std::optional<std::string> error) {
  countIn(lineMax);  // so that empty answers have an end as well
  whole_.push_back({std::move(text_), std::move(error)});
  text_.clear();
}

void Answers::countIn(std::size_t bytes) {
  if (bytes > bytesMax_ - bytes_) {
    throw Failure("the answer is larger than " + std::to_string(bytesMax_ >> 20) + " MiB");
  }
  bytes_ += bytes;
}

}  // namespace Tool
