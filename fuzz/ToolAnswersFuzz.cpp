#include "Answers.h"
#include "Check.h"
#include "Failure.h"
#include "SavedDocuments.h"
#include "Text.h"
#include "timeline/SavedTimelines.h"

namespace {

using BreloFuzz::check;

/// However the bytes arrive, the answers are the same, and none has more than has arrived.
std::string answersOf(std::string const& received, std::size_t piece) {
  Tool::Answers answers(std::size_t{1} << 30);
  std::string failed;
  try {
    for (std::size_t at = 0; at < received.size(); at += piece) {
      answers.feed(std::string_view(received).substr(at, piece));
    }
  } catch (Tool::Failure const& failure) {
    failed = failure.what();
    check(failed == Tool::printable(failed));
  }
  std::string all;
  while (auto const answer = answers.take()) {
    check(answer->text.size() <= received.size());
    all += answer->text + '\0' + answer->error.value_or("-") + '\0';
  }
  return all + failed;
}

/// Documents of any kind make a trace file that is JSON.
void checkTimeline(std::string const& documents) {
  std::string file;
  Tool::TraceWriter writer([&](std::string_view text) { file += text; });
  Tool::SavedTimelines timelines(writer);
  Tool::SavedDocuments saved([&](std::string_view document) { timelines.add(document); });
  try {
    saved.feed(documents);
    saved.finish();
    timelines.finish();
  } catch (Tool::Failure const&) {
    return;
  }
  writer.finish();
  check(Tool::Json::accept(file));
}

void checkTexts(std::string const& text) {
  std::string const shown = Tool::printable(text);
  check(Tool::printable(shown) == shown && shown.find('\n') == std::string::npos);
  for (std::size_t const columns : {0, 1, 7}) {
    check(Tool::columnsOf(Tool::cutTo(shown, columns)) <= columns);
  }
}

}  // namespace

/// What a daemon sends over a framed connection, or what is in a file of its documents.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  check(answersOf(text, 1) == answersOf(text, 1000));
  checkTimeline(text);
  checkTexts(text);
  return 0;
}
