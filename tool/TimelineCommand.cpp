#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "SavedDocuments.h"
#include "timeline/Follower.h"
#include "timeline/SavedTimelines.h"

namespace Tool {

namespace {

struct Options {
  std::vector<std::string> sockets;
  std::string from;
  std::string output;
  double seconds = 10;
  std::uint64_t capacity = 100'000;
  double timeoutSeconds = 10;
};

/// SIGINT and SIGTERM as something to poll: the first of them ends the recording, not the file.
class EndSignals {
 public:
  EndSignals() {
    ::sigemptyset(&signals_);
    ::sigaddset(&signals_, SIGINT);
    ::sigaddset(&signals_, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals_, &before_);
    descriptor_ = Descriptor(::signalfd(-1, &signals_, SFD_CLOEXEC | SFD_NONBLOCK));
  }
  EndSignals(EndSignals const&) = delete;
  EndSignals& operator=(EndSignals const&) = delete;
  ~EndSignals() {
    timespec const atOnce{};
    while (::sigtimedwait(&signals_, nullptr, &atOnce) > 0) {
    }
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }

  int descriptor() const { return descriptor_.get(); }

 private:
  sigset_t signals_;
  sigset_t before_;
  Descriptor descriptor_;
};

/// Until the time is over, or a signal says so.
void follow(std::vector<Follower>& followers, Connection::Clock::time_point end) {
  using Clock = Connection::Clock;
  EndSignals const signals;
  while (Clock::now() < end) {
    auto wake = end;
    std::vector<pollfd> polled{{signals.descriptor(), POLLIN, 0}};
    for (Follower const& follower : followers) {
      wake = std::min(wake, follower.wakeAt());
      polled.push_back({follower.descriptor(), follower.events(), 0});
    }
    using std::chrono::milliseconds;
    auto const left = std::chrono::duration_cast<milliseconds>(wake - Clock::now()).count();
    int const timeout = static_cast<int>(std::clamp<std::int64_t>(left, -1, 60'000)) + 1;
    ::poll(polled.data(), polled.size(), timeout);
    if (polled.front().revents != 0) break;
    for (Follower& follower : followers)
      follower.step();
  }
}

void record(Options const& options) {
  // A file that is written before a daemon has been reached would be lost for nothing.
  std::optional<OutputFile> file;
  TraceWriter writer([&](std::string_view text) { file->write(text); });
  int processes = 0;
  std::vector<Follower> followers;
  for (std::string const& path : options.sockets) {
    followers.emplace_back(Target{path, options.timeoutSeconds}, options.capacity, writer,
                           processes);
  }
  file.emplace(options.output);
  using Clock = Connection::Clock;
  auto const length = std::chrono::duration<double>(options.seconds);
  follow(followers, options.seconds == 0
                        ? Clock::time_point::max()
                        : Clock::now() + std::chrono::duration_cast<Clock::duration>(length));
  std::string trouble;
  for (Follower& follower : followers) {
    follower.finish();
    if (follower.trouble() && trouble.empty()) trouble = *follower.trouble();
  }
  writer.finish();
  if (!trouble.empty()) throw Failure(trouble + " (what was recorded before is in the file)");
}

void convert(Options const& options) {
  bool const standardInput = options.from == "-";
  Descriptor const opened(standardInput ? -1 : ::open(options.from.c_str(), O_RDONLY | O_CLOEXEC));
  int const input = standardInput ? STDIN_FILENO : opened.get();
  if (input < 0) throw Failure("cannot read " + options.from + ": " + ::strerror(errno));
  std::optional<OutputFile> file;
  TraceWriter writer([&](std::string_view text) {
    if (!file) file.emplace(options.output);
    file->write(text);
  });
  SavedTimelines timelines(writer);
  SavedDocuments documents([&](std::string_view document) { timelines.add(document); });
  try {
    for (char buffer[std::size_t{1} << 16];;) {
      ssize_t const length = ::read(input, buffer, sizeof buffer);
      if (length == 0) break;
      if (length < 0 && errno == EINTR) continue;
      if (length < 0) throw Failure(::strerror(errno));
      documents.feed({buffer, static_cast<std::size_t>(length)});
    }
    documents.finish();
    timelines.finish();
  } catch (Failure const& failure) {
    throw Failure(options.from + ": " + failure.what() +
                  "; save documents by: brelo history --json SOCKET");
  }
  writer.finish();
}

void run(Options const& options) {
  if (options.from.empty() == options.sockets.empty()) {
    throw Failure("give a SOCKET, or --from FILE; see brelo timeline --help", ExitCode::usage);
  }
  if (options.from.empty()) {
    record(options);
  } else {
    convert(options);
  }
}

}  // namespace

void addTimeline(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "timeline", "Record what daemons do as a file for Perfetto or chrome://tracing", options,
      run);
  command.value("SOCKET", options->sockets, "Unix sockets at which the daemons answer");
  command.value("-o,--output", options->output, "the file; - for standard output").required();
  command.value("--seconds", options->seconds, "how long to record; 0: until interrupted")
      .within(0.0, 1e6)
      .defaultShown();
  command
      .value("--capacity", options->capacity,
             "events that the daemon keeps meanwhile, so that none is lost")
      .countWithin(100, 10'000'000)
      .defaultShown();
  command.value("--from", options->from,
                "make it of saved documents (brelo history --json) instead; - for standard "
                "input");
  addTimeout(command, options->timeoutSeconds);
}

}  // namespace Tool
