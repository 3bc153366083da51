// faults_memory: each allocation of a long scenario fails once, on each backend.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <string>

#include "Brelo/Thread.h"
#include "FailingMalloc.h"
#include "Scenario.h"

namespace {

constexpr unsigned timeLimit = 20;  // seconds, for a hundredth of one

/// What a child tells of itself, also if it does not end well.
struct Told {
  char part[32];
  unsigned refused;
  unsigned long allocations;
};

struct Child {
  unsigned long nth;
  Told* told;
  int errors;  // its standard error, in memory
};

struct Tally {
  unsigned long swept = 0, unseen = 0, refused = 0, documented = 0, bad = 0;
};

std::string backend = "host";

/// The scenario in this process, without a failing allocation.
int runHere() {
  if (backend == "libevent") Brelo::useThreadLocalSingletons();
  try {
    Faults::Scenario([](char const*) {}).run();
    std::puts("it came to its end");
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}

[[noreturn]] void live(Child const& child) {
  alarm(timeLimit);
  dup2(child.errors, STDERR_FILENO);
  if (backend == "libevent") Brelo::useThreadLocalSingletons();
  int status = 0;
  try {
    Faults::Scenario scenario([&](char const* part) {
      std::strncpy(child.told->part, part, sizeof child.told->part - 1);
    });
    Faults::failAllocation(child.nth);
    scenario.run();
    child.told->allocations = Faults::allocations();
    child.told->refused = scenario.refused();
  } catch (std::exception const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    status = 1;
  }
  _exit(status);
}

std::map<pid_t, Child> children;

void start(unsigned long nth) {
  void* const shared =
      mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Child const child{nth, new (shared) Told{}, memfd_create("errors", MFD_CLOEXEC)};
  std::fflush(stdout);
  pid_t const pid = fork();
  if (pid == 0) live(child);
  children.emplace(pid, child);
}

/// The assertion that memory running out is described to end in.
bool isDescribed(std::string const& errors) {
  return errors.find("TimerWheel() Error code 12") != std::string::npos;
}

/// The last words.
std::string lastWords(int file) {
  std::array<char, 400> text{};
  off_t const size = lseek(file, 0, SEEK_END);
  off_t const from = std::max<off_t>(0, size - static_cast<off_t>(text.size()));
  ssize_t const got = pread(file, text.data(), text.size(), from);
  std::string words(text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  std::replace(words.begin(), words.end(), '\n', ' ');
  return words;
}

/// Waits for one child, and counts how it ended.
unsigned long reap(Tally& tally) {
  int status = 0;
  pid_t const pid = wait(&status);
  Child const child = children.at(pid);
  children.erase(pid);
  unsigned long const allocations = child.told->allocations;
  std::string const errors = lastWords(child.errors);
  bool const ended = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && !errors.empty();
  ++tally.swept;
  if (status == 0) {
    ++(child.told->refused != 0 ? tally.refused : tally.unseen);
  } else if (ended && (std::strncmp(child.told->part, "text", 4) == 0 || isDescribed(errors))) {
    ++tally.documented;
  } else {
    ++tally.bad;
    std::string const how = !WIFSIGNALED(status)          ? "wrong"
                            : WTERMSIG(status) == SIGALRM ? "hang"
                                                          : strsignal(WTERMSIG(status));
    std::printf("  bad: %s, allocation %lu, in \"%s\": %s: %s\n", backend.c_str(), child.nth,
                child.told->part, how.c_str(), errors.c_str());
  }
  close(child.errors);
  munmap(child.told, sizeof(Told));
  return allocations;
}

Tally sweep(unsigned long step, unsigned long offset, unsigned jobs) {
  Tally whole;
  start(0);
  unsigned long const allocations = reap(whole);
  Tally tally;
  if (whole.unseen != 1) return whole;
  // A few more, since the number is not the same in each run.
  for (unsigned long nth = 1 + offset % step; nth <= allocations + 20; nth += step) {
    if (children.size() == jobs) reap(tally);
    start(nth);
  }
  while (!children.empty())
    reap(tally);
  std::printf("%-10s %12lu %8lu %8lu %9lu %12lu %5lu\n", backend.c_str(), allocations, tally.swept,
              tally.unseen, tally.refused, tally.documented, tally.bad);
  return tally;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long step = 1, offset = 0, nth = 0;
  unsigned jobs = 8;
  std::string only = "both";
  CLI::App app{"Fails each allocation of a long scenario, one in each run."};
  app.add_option("--step", step, "every so many")->check(CLI::PositiveNumber);
  app.add_option("--offset", offset, "begin that much later");
  app.add_option("--jobs", jobs, "runs at a time")->check(CLI::PositiveNumber);
  bool here = false;
  app.add_flag("--here", here, "no failures, and no child");
  app.add_option("--nth", nth, "this allocation alone");
  app.add_option("--backend", only)->check(CLI::IsMember({"host", "libevent", "both"}));
  CLI11_PARSE(app, argc, argv);
  if (here) {
    backend = only;
    return runHere();
  }

  std::printf("%-10s %12s %8s %8s %9s %12s %5s\n", "backend", "allocations", "failed", "unseen",
              "bad_alloc", "ended so", "bad");
  unsigned long bad = 0;
  for (std::string const name : {"host", "libevent"}) {
    if (only != "both" && only != name) continue;
    backend = name;
    if (nth == 0) {
      bad += sweep(step, offset, jobs).bad;
    } else {
      Tally tally;
      start(nth);
      reap(tally);
      bad += tally.bad;
    }
  }
  return bad == 0 ? 0 : 1;
}
