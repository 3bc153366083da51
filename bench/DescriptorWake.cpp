// One byte goes back and forth through each of some socketpairs. A wake is one notification: its
// handler reads the byte and writes it back, which makes the other end of the pair readable.

#include <event2/event_struct.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Catalogue.h"
#include "Peers.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t wakeCount = 100'000;

void check(bool good, char const* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

/// False if there is nothing to read: a task may be queued once more for a byte that its run has
/// already taken. That is not counted as a wake.
bool echo(int fd) {
  char buffer[16];
  ssize_t const length = read(fd, buffer, sizeof buffer);
  if (length < 0 && errno == EAGAIN) return false;
  check(length == 1 && write(fd, buffer, 1) == 1, "echo");
  return true;
}

/// Both ends of some pairs, non-blocking.
class Ends {
 public:
  explicit Ends(std::size_t pairs) {
    for (std::size_t i = 0; i < pairs; ++i) {
      std::array<int, 2> pair;
      check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()) == 0,
            "socketpair");
      fds_.insert(fds_.end(), pair.begin(), pair.end());
    }
  }
  Ends(Ends const&) = delete;
  Ends& operator=(Ends const&) = delete;
  ~Ends() {
    for (int const fd : fds_)
      close(fd);
  }

  std::vector<int> const& fds() const { return fds_; }
  /// Sends one byte into each pair.
  void start() const {
    for (std::size_t i = 0; i < fds_.size(); i += 2)
      check(write(fds_[i], "x", 1) == 1, "write");
  }

 private:
  std::vector<int> fds_;
};

/// What the project's ends share; the last wake stops all, and the loop returns.
template <class End>
struct Wakes {
  explicit Wakes(std::uint64_t count) : run(count) {}
  void wake(int fd) {
    if (!echo(fd) || !run.finished()) return;
    for (End& end : ends)
      end.stop();
  }
  Run run;
  std::deque<End> ends;
};

class ControlEnd : Brelo::Platform::FdEventHandler {
 public:
  ControlEnd(Wakes<ControlEnd>& wakes, int fd)
      : wakes_(wakes), control_(Brelo::Platform::getFdControl(this)) {
    control_->setReads(true);
    control_->setFd(fd);
  }
  void stop() { control_->delFd(); }

 private:
  void readFdEvent(int fd) override { wakes_.wake(fd); }
  void writeFdEvent(int) override {}

  Wakes<ControlEnd>& wakes_;
  std::shared_ptr<Brelo::Platform::FdControl> control_;
};

double wakeControls(std::size_t pairs, std::uint64_t count) {
  Ends const ends(pairs);
  Wakes<ControlEnd> shared(count);
  for (int const fd : ends.fds())
    shared.ends.emplace_back(shared, fd);
  ends.start();
  shared.run = Run(count);
  Brelo::Platform::doEventLoop();
  return shared.run.seconds();
}

class TaskEnd {
 public:
  TaskEnd(Wakes<TaskEnd>& wakes, std::shared_ptr<Brelo::TaskScheduler> const& scheduler, int fd)
      : task_(std::make_shared<EchoTask>(wakes, scheduler)) {
    task_->taskWatchFdIs(fd);
  }
  void stop() { task_->taskWatchFdDel(); }

 private:
  class EchoTask : public Brelo::FileDescriptorTask {
   public:
    EchoTask(Wakes<TaskEnd>& wakes, std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
        : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "bench"), wakes_(wakes) {}
    void taskExecuteReadable() override { wakes_.wake(taskWatchFd()); }
    void taskExecuteWritable() override {}

   private:
    Wakes<TaskEnd>& wakes_;
  };

  std::shared_ptr<EchoTask> task_;
};

double wakeTasks(std::size_t pairs, std::uint64_t count) {
  Ends const ends(pairs);
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  Wakes<TaskEnd> shared(count);
  for (int const fd : ends.fds())
    shared.ends.emplace_back(shared, root, fd);
  ends.start();
  shared.run = Run(count);
  Brelo::Platform::doEventLoop();
  return shared.run.seconds();
}

double wakeLibevent(int flags, std::size_t pairs, std::uint64_t count) {
  LibeventBase const base = makeLibeventBase(flags);
  struct Shared {
    event_base* base;
    Run run;
  };
  Shared shared{base.get(), Run(count)};
  Ends const ends(pairs);
  std::vector<event> events(ends.fds().size());
  for (std::size_t i = 0; i < events.size(); ++i) {
    event_assign(
        &events[i], base.get(), ends.fds()[i], EV_READ | EV_PERSIST,
        [](evutil_socket_t fd, short, void* data) {
          auto* const self = static_cast<Shared*>(data);
          if (echo(fd) && self->run.finished()) event_base_loopbreak(self->base);
        },
        &shared);
    event_add(&events[i], nullptr);
  }
  ends.start();
  shared.run = Run(count);
  event_base_dispatch(base.get());
  for (event& each : events)
    event_del(&each);
  return shared.run.seconds();
}

double wakeUv(std::size_t pairs, std::uint64_t count) {
  struct End {
    uv_poll_t poll;
    int fd;
    Run* run;
  };
  Ends const ends(pairs);
  std::deque<End> handles;
  Run run(count);
  UvLoop loop;
  for (int const fd : ends.fds()) {
    End& end = handles.emplace_back();
    uv_poll_init(loop.get(), &end.poll, fd);
    end.poll.data = &end;
    end.fd = fd;
    end.run = &run;
    uv_poll_start(&end.poll, UV_READABLE, [](uv_poll_t* handle, int, int) {
      auto* const self = static_cast<End*>(handle->data);
      if (echo(self->fd) && self->run->finished()) uv_stop(handle->loop);
    });
  }
  ends.start();
  run = Run(count);
  uv_run(loop.get(), UV_RUN_DEFAULT);
  return run.seconds();
}

/// An asynchronous read. This loop tries it at once, in vain, and again when the socket is ready:
/// a wake has one call more than those of the other peers.
double wakeAsio(std::size_t pairs, std::uint64_t count) {
  namespace local = boost::asio::local;
  struct End {
    End(AsioContext& context, Run& sharedRun) : socket(context), run(sharedRun) {}
    void next() {
      socket.async_read_some(boost::asio::buffer(buffer),
                             [this](boost::system::error_code const&, std::size_t) { wake(); });
    }
    void wake() {
      socket.write_some(boost::asio::buffer(buffer, 1));
      if (run.finished()) {
        static_cast<AsioContext&>(socket.get_executor().context()).stop();
      } else {
        next();
      }
    }
    local::stream_protocol::socket socket;
    std::array<char, 16> buffer;
    Run& run;
  };
  AsioContext context;
  Run run(count);
  std::deque<End> ends;
  for (std::size_t i = 0; i < pairs; ++i) {
    End& one = ends.emplace_back(context, run);
    End& other = ends.emplace_back(context, run);
    local::connect_pair(one.socket, other.socket);
    one.next();
    other.next();
    one.socket.write_some(boost::asio::buffer("x", 1));
  }
  run = Run(count);
  context.run();
  return run.seconds();
}

void addForm(Catalogue& catalogue, std::string const& form, std::size_t pairs, double limit) {
  std::string const unit = "descriptor wake";
  auto const of = [=](auto wake) {
    return [=](std::uint64_t count) { return wake(pairs, count); };
  };
  auto const libeventWith = [=](int flags) {
    return [=](std::uint64_t count) { return wakeLibevent(flags, pairs, count); };
  };
  catalogue.measureBackends(unit, form, wakeCount, of(wakeControls));
  catalogue.measureBackends(unit, form + " as FileDescriptorTask", wakeCount, of(wakeTasks));
  catalogue.measure(unit, form, "libevent", wakeCount, libeventWith(libeventPlain));
  catalogue.measure(unit, form, "libevent-precise", wakeCount, libeventWith(libeventPrecise));
  catalogue.measure(unit, form, "libuv", wakeCount, of(wakeUv));
  catalogue.measure(unit, form, "asio", wakeCount, of(wakeAsio));
  for (char const* who : {"brelo-libevent", "brelo-host"}) {
    catalogue.aim({unit, form, who, limit, "libevent"});
  }
}

}  // namespace

void addDescriptorWake(Catalogue& catalogue) {
  addForm(catalogue, "1 pair", 1, 1.25);
  addForm(catalogue, "100 pairs", 100, 1.15);
}

}  // namespace Bench
