#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <thread>

#include "Commands.h"
#include "Failure.h"
#include "HistoryDocument.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  std::optional<std::uint64_t> since;
  bool follow = false;
  bool json = false;
};

std::int64_t clockNs(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

/// The time of day of a moment on CLOCK_MONOTONIC, to the microsecond.
std::string timeOfDay(std::int64_t monotonicNs) {
  std::int64_t const unixNs = clockNs(CLOCK_REALTIME) - clockNs(CLOCK_MONOTONIC) + monotonicNs;
  time_t const seconds = unixNs / 1'000'000'000;
  tm day{};
  ::localtime_r(&seconds, &day);
  char text[64];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06d", day.tm_hour, day.tm_min, day.tm_sec,
                static_cast<int>(unixNs % 1'000'000'000 / 1000));
  return text;
}

/// Events as lines for people, each with its distance from the one before.
class Lines {
 public:
  std::string of(HistoryDocument const& history) {
    std::string lines;
    std::uint64_t number = history.first;
    if (next_ && number > *next_) {
      lines += "(lost " + std::to_string(number - *next_) + " events)\n";
      beforeNs_ = noTime;
    }
    for (HistoryEvent const& event : history.events) {
      std::string const distance =
          beforeNs_ == noTime
              ? ""
              : "+" + lengthText(static_cast<double>(event.timeNs - beforeNs_) / 1e9);
      char text[100];
      std::snprintf(text, sizeof text, "%10" PRIu64 "  %s  %9s  ", number++,
                    timeOfDay(event.timeNs).c_str(), distance.c_str());
      std::string type = printable(event.type);
      type.resize(std::max<std::size_t>(type.size(), 17), ' ');
      lines += text + type + "  " + printable(event.subject) + "\n";
      beforeNs_ = event.timeNs;
    }
    next_ = number;
    return lines;
  }

 private:
  std::optional<std::uint64_t> next_;
  static constexpr std::int64_t noTime = -1;
  std::int64_t beforeNs_ = noTime;  // of the event before
};

void run(Options const& options) {
  Connection connection = options.daemon.connect();
  std::optional<std::uint64_t> since = options.since;
  std::optional<std::uint64_t> last;  // of the events that there were when we came
  Lines lines;
  for (;;) {
    std::string const text =
        connection.ask(since ? "history since=" + std::to_string(*since) : "history");
    HistoryDocument const history = readHistory(text);
    if (options.json) {
      if (!options.follow || !history.events.empty()) print(text);
    } else {
      print(lines.of(history));
    }
    if (!history.events.empty()) since = history.next();
    if (!last) last = history.recorded;
    bool const more = !history.events.empty() && history.next() <= history.recorded;
    if (!options.follow && (!more || history.next() > *last)) return;
    if (!more) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace

void addHistory(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command =
      program.subcommand("history",
                         "Print the latest events: number, time of day, distance from the "
                         "event before, what happened to whom",
                         options, run);
  addTarget(command, options->daemon);
  command.value("--since", options->since, "the number of the first event to print").notNegative();
  command.flag("--follow", options->follow, "go on with what happens next");
  command.flag("--json", options->json, "the daemon's documents as they are");
}

}  // namespace Tool
