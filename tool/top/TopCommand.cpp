#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "Commands.h"
#include "Descriptor.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"
#include "top/Screen.h"
#include "top/Terminal.h"

namespace Tool {

namespace {

using Clock = Watched::Clock;
using Daemons = std::vector<std::unique_ptr<Watched>>;

struct Options {
  std::vector<std::string> sockets;
  double intervalSeconds = 2;
  double quantumMilliseconds = 20;
  unsigned batch = 0;
  std::string sort = "loop";
  std::string filter;
  unsigned width = 120;
  bool flat = false;
  bool sinceClear = false;
};

Clock::duration clockDuration(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

/// Signals that end the program or tell of the terminal, as a descriptor: the terminal is to be
/// given back before the program ends.
class Signals {
 public:
  Signals() {
    ::sigemptyset(&signals_);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH})
      ::sigaddset(&signals_, signal);
    ::sigprocmask(SIG_BLOCK, &signals_, &before_);
    descriptor_ = Descriptor(::signalfd(-1, &signals_, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!descriptor_) throw Failure("there is no descriptor left for signals");
  }
  ~Signals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
  Signals(Signals const&) = delete;
  Signals& operator=(Signals const&) = delete;

  int descriptor() const { return descriptor_.get(); }
  /// The next one, or 0.
  int take() const {
    signalfd_siginfo info{};
    bool const whole = ::read(descriptor_.get(), &info, sizeof info) == sizeof info;
    return whole ? static_cast<int>(info.ssi_signo) : 0;
  }

 private:
  sigset_t signals_{};
  sigset_t before_{};
  Descriptor descriptor_;
};

/// Waits until a daemon or one of the further descriptors wants something, at most so long, and
/// has the daemons go on.
void wait(Daemons& daemons, std::vector<pollfd> polled, Clock::time_point until) {
  for (auto const& daemon : daemons) {
    until = std::min(until, daemon->deadline());
    polled.push_back({daemon->descriptor(), daemon->events(), 0});
  }
  using std::chrono::milliseconds;
  auto const left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
  ::poll(polled.data(), polled.size(), static_cast<int>(std::clamp<long>(left, 0, 60'000)));
  for (auto& daemon : daemons)
    daemon->advance(Clock::now());
}

void runInTerminal(Daemons& daemons, Options const& options, View const& view) {
  int ending = 0;
  {
    Signals const signals;
    Terminal terminal;
    Screen screen(daemons, clockDuration(options.intervalSeconds), view);
    while (!screen.ended() && ending == 0) {
      auto const now = Clock::now();
      terminal.draw(screen.lines(now, terminal.rows(), terminal.width()));
      // Once a second at least, for what is told of a daemon that says nothing.
      wait(daemons, {{STDIN_FILENO, POLLIN, 0}, {signals.descriptor(), POLLIN, 0}},
           now + std::chrono::seconds(1));
      while (int const signal = signals.take()) {
        if (signal == SIGWINCH) {
          terminal.adaptToSize();
        } else {
          ending = signal;
        }
      }
      terminal.readKeys(screen);
      if (::isatty(STDIN_FILENO) == 0) return;  // the terminal has gone
    }
  }
  if (ending == 0) return;
  ::signal(ending, SIG_DFL);  // which ncurses has replaced
  ::raise(ending);
}

/// The next answer of each daemon, or what keeps it from answering.
void awaitUpdate(Daemons& daemons, std::vector<std::uint64_t> const& seen,
                 Clock::time_point until) {
  auto const waiting = [&] {
    for (std::size_t i = 0; i < daemons.size(); ++i) {
      if (daemons[i]->answers() == seen[i] && daemons[i]->trouble().empty()) return true;
    }
    return false;
  };
  do {
    wait(daemons, {}, until);
  } while (waiting() && Clock::now() < until);
}

void runBatch(Daemons& daemons, Options const& options, View const& view) {
  auto const interval = clockDuration(options.intervalSeconds);
  auto next = Clock::now();
  bool reached = false;
  for (unsigned i = 0; i < options.batch; ++i) {
    std::vector<std::uint64_t> seen;
    for (auto const& daemon : daemons)
      seen.push_back(daemon->answers());
    while (Clock::now() < next)
      wait(daemons, {}, next);
    next += interval;
    awaitUpdate(daemons, seen, next + std::chrono::seconds(1));
    for (auto const& daemon : daemons) {
      std::string text;
      for (auto const& line : Screen::plain(*daemon, view, Clock::now(), options.width)) {
        text += plainText(line) + "\n";
      }
      print(text + "\n");
      reached = reached || daemon->answers() > 0;
    }
  }
  if (!reached) throw Failure(daemons.front()->trouble());
}

void run(Options const& options) {
  View view;
  view.quantumNs = options.quantumMilliseconds * 1e6;
  view.sinceClear = options.sinceClear;
  view.order.flat = options.flat;
  view.order.filter = options.filter;
  view.order.sort = options.sort == "name" ? tableColumns.size() : columnOf(options.sort);
  Daemons daemons;
  for (auto const& socket : options.sockets) {
    daemons.push_back(std::make_unique<Watched>(socket, clockDuration(options.intervalSeconds)));
  }
  if (options.batch > 0) {
    runBatch(daemons, options, view);
  } else {
    runInTerminal(daemons, options, view);
  }
}

}  // namespace

void addTop(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "top", "Show live who holds the loops of daemons, and who waits", options, run);
  command.value("SOCKET", options->sockets, "Unix sockets at which daemons answer").required();
  command.value("--interval", options->intervalSeconds, "seconds from one question to the next")
      .within(0.1, 3600.0)
      .defaultShown();
  command.value("--batch", options->batch, "print so many updates as text, and end")
      .countWithin(1, 1'000'000'000);
  std::vector<std::string> keys{"name"};
  for (auto const& column : tableColumns)
    keys.emplace_back(column.key);
  command.value("--sort", options->sort, "the column to sort by").oneOf(keys).defaultShown();
  command.value("--filter", options->filter, "only names and groups that contain this");
  command.flag("--flat", options->flat, "no tree of groups");
  command.flag("--since-clear", options->sinceClear,
               "figures since the daemon's were cleared, not of the latest interval");
  command
      .value("--quantum", options->quantumMilliseconds,
             "milliseconds of a run from which it is red")
      .within(0.001, 1e6)
      .defaultShown();
  command.value("--width", options->width, "columns of the updates of --batch")
      .countWithin(40, 1000)
      .defaultShown();
}

}  // namespace Tool
