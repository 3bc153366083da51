#include "BreloDaemon/ChildTask.h"

#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Time.h"
#include "Brelo/TimerTask.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/ChildStart.h"
#include "BreloDaemon/internal/Watching.h"

namespace BreloDaemon {

namespace Impl {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

double seconds(std::chrono::nanoseconds span) {
  if (span == std::chrono::nanoseconds::max()) return never;
  return std::chrono::duration<double>(span).count();
}

/// Whether the child has ended; its remains are taken away unless `options` has WNOWAIT.
enum class Found : std::uint8_t { running, ended, nobody };

Found look(int pidfd, int options, siginfo_t& info) {
  info.si_pid = 0;
  while (::waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG | options) != 0) {
    if (errno == EINTR) continue;
    return errno == ECHILD ? Found::nobody : Found::running;
  }
  return info.si_pid != 0 ? Found::ended : Found::running;
}

}  // namespace

/// The task of a ChildTask, which may end inside of its run. It runs when the child has ended and
/// when a time is up.
class ChildTaskInner : public Watching<Brelo::TimerTask> {
 public:
  ChildTaskInner(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                 std::string const& name, ChildTask::EndHandler ended)
      : Watching(std::move(scheduler), priority, name),
        ended_(std::move(ended)),
        process_(::getpid()),
        step_("child " + name, nullptr, [this] { terminate(); }) {}
  ~ChildTaskInner() override { end(); }

  void start(ChildProgram const& program) {
    if (program.timeLimit <= std::chrono::nanoseconds::zero() ||
        program.killGrace < std::chrono::nanoseconds::zero()) {
      BRELO_FAIL("ChildTask", "{} has no time to run", program.path);
    }
    grouped_ = program.group != ChildProgram::Group::inherited;
    grace_ = seconds(program.killGrace);
    child_ = startChild(program);
    watch(child_.pidfd.get());
    nextAt(seconds(program.timeLimit));
  }
  /// As if it had never been, but for the child's work.
  void end();

  bool signal(int number) const;
  void terminate();

  StartedChild& child() { return child_; }
  bool running() const { return static_cast<bool>(child_.pidfd); }

 private:
  enum class Stage : std::uint8_t { running, terminating, killed };

  void taskExecute() override;
  std::optional<ChildEnd> reaped() const;
  void escalate();
  void nextAt(double delay);
  void letGo();

  ChildTask::EndHandler ended_;
  pid_t const process_;
  bool grouped_ = false;
  double grace_ = never;
  StartedChild child_;
  Stage stage_ = Stage::running;
  bool timedOut_ = false;
  double next_ = never;  // when it is made to end, on the clock of Brelo::time()
  StopStep step_;
};

void ChildTaskInner::taskExecute() {
  if (!running()) return;
  if (::getpid() != process_) return letGo();
  if (auto const how = reaped()) {
    letGo();
    if (auto const ended = std::move(ended_)) ended(*how);
    return;
  }
  watchAgain();
  if (Brelo::time() >= next_) {
    timedOut_ = timedOut_ || stage_ == Stage::running;
    escalate();
  }
  nextAt(next_ - Brelo::time());
}

std::optional<ChildEnd> ChildTaskInner::reaped() const {
  int const fd = child_.pidfd.get();
  siginfo_t info{};
  Found found = look(fd, WNOWAIT, info);
  if (found == Found::running) return std::nullopt;
  // Before its remains are taken away, so that the group is still its own.
  if (found == Found::ended && grouped_ && stage_ != Stage::running) signal(SIGKILL);
  found = look(fd, 0, info);
  ChildEnd end;
  end.timedOut = timedOut_;
  if (found != Found::ended) return end;
  end.how = info.si_code == CLD_EXITED ? ChildEnd::How::exited : ChildEnd::How::signalled;
  end.status = info.si_status;
  end.coreDumped = info.si_code == CLD_DUMPED;
  return end;
}

bool ChildTaskInner::signal(int number) const {
  if (!running() || ::getpid() != process_) return false;
  int const fd = child_.pidfd.get();
  if (!grouped_) return ::syscall(SYS_pidfd_send_signal, fd, number, nullptr, 0) == 0;
  constexpr int toGroup = 1 << 2;  // PIDFD_SIGNAL_PROCESS_GROUP
  if (::syscall(SYS_pidfd_send_signal, fd, number, nullptr, toGroup) == 0) return true;
  // An older kernel. While the child is there to be waited for, its number is nobody else's.
  return errno == EINVAL && ::syscall(SYS_pidfd_send_signal, fd, 0, nullptr, 0) == 0 &&
         ::kill(-child_.pid, number) == 0;
}

void ChildTaskInner::terminate() {
  if (!running() || stage_ != Stage::running) return;
  escalate();
  nextAt(next_ - Brelo::time());
}

void ChildTaskInner::escalate() {
  if (stage_ == Stage::running) {
    stage_ = Stage::terminating;
    next_ = Brelo::time() + grace_;
    signal(SIGTERM);
    signal(SIGCONT);  // one that is stopped hears nothing
  } else {
    stage_ = Stage::killed;
    next_ = never;
    signal(SIGKILL);
  }
}

void ChildTaskInner::nextAt(double delay) {
  next_ = Brelo::time() + delay;
  if (next_ != never) scheduleTaskDelay(std::max(delay, 0.0));
}

void ChildTaskInner::letGo() {
  watchNoMore();
  stopTimerTask();
  child_.pidfd.reset();
  step_.done();
}

void ChildTaskInner::end() {
  if (!running()) return;
  if (::getpid() == process_) {
    signal(SIGKILL);
    watchNoMore();
    reapKilled(std::move(child_.pidfd));
  }
  letGo();
}

}  // namespace Impl

ChildTask::ChildTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                     std::string name, ChildProgram program, EndHandler ended)
    : inner_(std::make_shared<Impl::ChildTaskInner>(std::move(scheduler), priority, name,
                                                    std::move(ended))) {
  inner_->start(program);
}

ChildTask::~ChildTask() {
  inner_->end();
}

pid_t ChildTask::pid() const {
  return inner_->child().pid;
}

bool ChildTask::running() const {
  return inner_->running();
}

Descriptor ChildTask::takeInput() {
  return std::move(inner_->child().pipes[0]);
}

Descriptor ChildTask::takeOutput() {
  return std::move(inner_->child().pipes[1]);
}

Descriptor ChildTask::takeErrors() {
  return std::move(inner_->child().pipes[2]);
}

bool ChildTask::signal(int number) {
  return inner_->signal(number);
}

void ChildTask::terminate() {
  inner_->terminate();
}

std::string toString(ChildEnd const& end) {
  std::string text = "was waited for elsewhere";
  if (end.how == ChildEnd::How::exited) text = "exited with status " + std::to_string(end.status);
  if (end.how == ChildEnd::How::signalled) {
    text = "killed by signal " + std::to_string(end.status) + " (" + ::strsignal(end.status) + ')';
  }
  if (end.coreDumped) text += ", core dumped";
  if (end.timedOut) text += ", its time was up";
  return text;
}

}  // namespace BreloDaemon
