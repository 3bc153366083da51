// A second in which nothing may run, although a descriptor task has input that nobody reads.

#include "ServerIdle.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <system_error>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Catalogue.h"
#include "Run.h"

namespace Bench {

namespace {

/// A descriptor with input.
class Input {
 public:
  Input() : fd_(eventfd(1, EFD_CLOEXEC)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  Input(Input const&) = delete;
  Input& operator=(Input const&) = delete;
  ~Input() { close(fd_); }

  int fd() const { return fd_; }

 private:
  int fd_;
};

struct UnreadTask : Brelo::FileDescriptorTask {
  explicit UnreadTask(std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
      : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "unread") {}
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
};

enum class Suspended { task, root };

double idleSecond(Suspended suspended, std::uint64_t milliseconds) {
  Input const input;
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const task = std::make_shared<UnreadTask>(root);
  if (suspended == Suspended::root) {
    root->suspendedIs(true);
  } else {
    task->taskSuspendedIs(true);
  }
  task->taskWatchFdIs(input.fd());
  double const seconds = static_cast<double>(milliseconds) * 1e-3;
  double const start = clockSeconds(CLOCK_PROCESS_CPUTIME_ID);
  Brelo::Platform::doEventLoop(seconds);
  double const cpu = clockSeconds(CLOCK_PROCESS_CPUTIME_ID) - start;
  task->taskWatchFdDel();
  return cpu / seconds;
}

void addForm(Catalogue& catalogue, Figure const& figure, Suspended suspended) {
  catalogue.measureFiguresOnBackends(
      {figure}, 1'000, [suspended](std::uint64_t milliseconds) -> std::vector<double> {
        return {idleSecond(suspended, milliseconds) * 1e3};
      });
  catalogue.aimOnBackends(figure.unit, figure.form, 1, "");
}

}  // namespace

void addIdleSecond(Catalogue& catalogue, std::string const& unit) {
  addForm(catalogue, {unit, "idle second, task suspended", "CPU ms"}, Suspended::task);
  addForm(catalogue, {unit, "idle second, root suspended", "CPU ms"}, Suspended::root);
}

}  // namespace Bench
