#include "BreloDaemon/ServiceNotify.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/TimerTask.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/NotifySocket.h"

namespace BreloDaemon {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

namespace {

/// The value of a variable, which is gone from the environment; none if it is empty.
std::optional<std::string> take(char const* name) {
  char const* const value = ::secure_getenv(name);
  if (value == nullptr) return std::nullopt;
  std::optional<std::string> taken(value);
  ::unsetenv(name);
  if (taken->empty()) taken.reset();
  return taken;
}

std::optional<std::int64_t> takeNumber(char const* name) {
  auto const text = take(name);
  if (!text) return std::nullopt;
  std::int64_t number = 0;
  char const* const end = text->data() + text->size();
  auto const [stopped, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || stopped != end || number <= 0) {
    throw std::system_error(EINVAL, std::generic_category(), name + ("=" + *text));
  }
  return number;
}

std::string number(std::int64_t value) {
  char text[24];
  return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

}  // namespace

namespace Impl {

class WatchdogTask : public Brelo::TimerTask {
 public:
  WatchdogTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
               std::shared_ptr<NotifySocket const> socket, nanoseconds time)
      : TimerTask(std::move(scheduler), priority, "watchdog"),
        socket_(std::move(socket)),
        time_(time),
        step_("watchdog", nullptr, [this] { stop(); }) {}

  void stop() {
    stopTimerTask();
    step_.done();
  }

 private:
  void taskExecute() override {
    bool const heard = !socket_->send("WATCHDOG=1");
    scheduleTaskDelay(heard ? time_ / 2 : time_ / 16);
  }

  std::shared_ptr<NotifySocket const> const socket_;
  nanoseconds const time_;
  StopStep step_;
};

}  // namespace Impl

ServiceNotify::ServiceNotify() {
  auto const address = take("NOTIFY_SOCKET");
  auto const time = takeNumber("WATCHDOG_USEC");
  auto const process = takeNumber("WATCHDOG_PID");
  if (!address) return;
  socket_ = std::make_shared<Impl::NotifySocket>(*address);
  if (!time || process.value_or(::getpid()) != ::getpid()) return;
  constexpr auto most = std::chrono::duration_cast<microseconds>(nanoseconds::max()).count();
  watchdogTime_ = microseconds(std::min(*time, most));
}

ServiceNotify::~ServiceNotify() {
  if (watchdog_ != nullptr) watchdog_->stop();
}

std::error_code ServiceNotify::send(std::string_view message) const {
  return socket_ == nullptr ? std::error_code() : socket_->send(message);
}

std::error_code ServiceNotify::ready() {
  return send("READY=1");
}

std::error_code ServiceNotify::reloading() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return send("RELOADING=1\nMONOTONIC_USEC=" +
              number(std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000));
}

std::error_code ServiceNotify::stopping() {
  return send("STOPPING=1");
}

std::error_code ServiceNotify::status(std::string_view text) {
  std::string message = "STATUS=";
  message += text;
  std::replace(message.begin(), message.end(), '\n', ' ');
  return send(message);
}

std::error_code ServiceNotify::mainPidIs(pid_t pid) {
  return send("MAINPID=" + number(pid));
}

std::error_code ServiceNotify::extendTimeout(nanoseconds time) {
  if (time < nanoseconds::zero()) BRELO_FAIL("ServiceNotify", "{} ns", time.count());
  return send("EXTEND_TIMEOUT_USEC=" +
              number(std::chrono::duration_cast<microseconds>(time).count()));
}

void ServiceNotify::feedWatchdog(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                                 Brelo::TaskPriority priority) {
  if (watchdogTime_ == nanoseconds::max()) return;
  auto const task =
      std::make_shared<Impl::WatchdogTask>(std::move(scheduler), priority, socket_, watchdogTime_);
  task->scheduleTask();
  if (watchdog_ != nullptr) watchdog_->stop();
  watchdog_ = task;
}

}  // namespace BreloDaemon
