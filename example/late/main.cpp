// late: a daemon with four faults to be found, each switched on by a flag. doc/observe/late.md
// finds them.
//
//   build/release/example/late --stats /tmp/late.sock --stall --hog
//
// It has a tick every 20 ms, and says how late the latest of the last second was, if by more than
// 10 ms.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Thread.h"
#include "Brelo/Time.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloObserve/StatsServer.h"

using namespace std::chrono_literals;
using Brelo::TaskPriority;
using BreloDaemon::FunctionTask;
using BreloDaemon::FunctionTimer;

namespace Late {

/// Says once in a second how late the tick has been.
class Tick {
 public:
  explicit Tick(std::shared_ptr<Brelo::TaskSchedulerRoot> const& root)
      : timer_(root, TaskPriority::high, "tick", [this] { run(); }) {
    timer_.every(20ms);
  }

 private:
  void run() {
    double const now = Brelo::time();
    worst_ = std::max(worst_, now - before_ - 0.02);
    before_ = now;
    if (++ticks_ % 50 != 0) return;
    if (worst_ > 0.01) std::cout << "a tick was " << worst_ * 1000 << " ms late" << std::endl;
    worst_ = 0;
  }

  double before_ = Brelo::time();
  double worst_ = 0;
  unsigned ticks_ = 0;
  FunctionTimer timer_;
};

/// The stall: it waits where it stands for what is slow today.
[[gnu::noinline]] void askTheDisk() {
  std::this_thread::sleep_for(300ms);
}

[[gnu::noinline]] void reloadSettings(unsigned& generation) {
  askTheDisk();
  ++generation;
}

/// The hog: work in one run that would do in many.
[[gnu::noinline]] double rebuildIndex() {
  double sum = 0;
  for (double const end = Brelo::time() + 0.06; Brelo::time() < end;)
    for (int i = 1; i < 1000; ++i)
      sum += std::sqrt(i);
  return sum;
}

}  // namespace Late

int main(int argc, char** argv) {
  std::string stats;
  bool stall = false;
  bool hog = false;
  bool leak = false;
  bool flood = false;
  CLI::App app{"A daemon with four faults to be found."};
  app.add_option("--stats", stats, "path of the socket for brelo")->required();
  app.add_flag("--stall", stall, "every second it waits for something slow");
  app.add_flag("--hog", hog, "every half a second it works on and on");
  app.add_flag("--leak", leak, "it forgets to let go of its tasks");
  app.add_flag("--flood", flood, "a task asks for a run in each of its runs");
  CLI11_PARSE(app, argc, argv);
  try {
    BreloDaemon::Daemon daemon("late");
    auto const& root = daemon.scheduler();
    BreloObserve::StatsServer const server(root, stats);
    Late::Tick const tick(root);
    unsigned generation = 0;
    FunctionTimer reload(root, TaskPriority::normal, "reload",
                         [&] { Late::reloadSettings(generation); });
    if (stall) reload.every(1s);
    FunctionTimer index(root, TaskPriority::low, "index", [] { return Late::rebuildIndex(); });
    if (hog) index.every(500ms);
    std::vector<FunctionTask> sessions;
    FunctionTimer accept(root, TaskPriority::normal, "accept", [&] {
      sessions.emplace_back(root, TaskPriority::normal, "session", [] {});
      sessions.back().schedule();
    });
    if (leak) accept.every(1ms);
    std::unique_ptr<FunctionTask> poll;
    poll = std::make_unique<FunctionTask>(root, TaskPriority::normal, "poll",
                                          [&] { poll->schedule(); });
    if (flood) poll->schedule();
    daemon.onStop("poll", [&] { poll.reset(); });
    return daemon.run();
  } catch (std::exception const& error) {
    std::cerr << "late: " << error.what() << "\n";
    return 1;
  }
}
