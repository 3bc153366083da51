// A daemon's statistics over a Unix stream socket: each client gets one JSON document.
//
//   build/release/example/stats_socket
//
// The daemon works for a while, asks itself for its statistics through the socket, prints them and
// ends. However slowly a client reads, the daemon's tasks go on meanwhile.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"

int checked(int result) {
  if (result < 0) throw std::system_error(errno, std::generic_category());
  return result;
}

class StatsServer : public Brelo::FileDescriptorTask {
 public:
  /// Owns `fd`, which listens. Calls `served` after each document.
  StatsServer(std::shared_ptr<Brelo::TaskScheduler> scheduler, int fd, std::function<void()> served)
      : FileDescriptorTask(std::move(scheduler), Brelo::TaskPriority::normal, "stats"),
        served_(std::move(served)) {
    taskWatchFdIs(fd);
  }
  ~StatsServer() override {
    int const fd = taskWatchFd();
    taskWatchFdDel();
    ::close(fd);
  }

  void taskExecuteReadable() override {
    int const client = ::accept4(taskWatchFd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;  // it has gone; with no descriptors left, pause for a while
    auto const snapshot = taskScheduler()->snapshot(
        "", true, true, true, Brelo::TaskSchedulerSnapshot::displayOrderUnset);
    taskScheduler()->snapshotRenderJsonAsync(client, {snapshot}, served_);  // closes `client`
  }
  void taskExecuteWritable() override {}

 private:
  std::function<void()> const served_;
};

class Work : public Brelo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {
    taskWorkCountInc(1);
    scheduleTaskDelay(0.001);
  }
};

/// What a client gets; it may block.
std::string fetch(sockaddr_un const& address) {
  int const fd = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  checked(::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address));
  std::string document;
  char buffer[4096];
  while (int const got = checked(static_cast<int>(::read(fd, buffer, sizeof buffer))))
    document.append(buffer, static_cast<std::size_t>(got));
  ::close(fd);
  return document;
}

int main() try {
  signal(SIGPIPE, SIG_IGN);  // a client that has gone is an error of the write and not a signal
  char directory[] = "/tmp/stats_socket.XXXXXX";
  if (::mkdtemp(directory) == nullptr) checked(-1);
  std::string const path = std::string(directory) + "/stats";
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  int const fd = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  checked(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  checked(::listen(fd, SOMAXCONN));

  auto const root = Brelo::schedulerRootBrelo();
  root->historyEntryCountIs(10);  // the latest events, which are part of the document
  auto work = std::make_shared<Work>(root, Brelo::TaskPriority::normal, "work");
  work->scheduleTask();
  std::shared_ptr<StatsServer> server;
  server = std::make_shared<StatsServer>(root, fd, [&] {
    work.reset();
    server.reset();
  });
  Brelo::Platform::doEventLoop(0.02);

  std::string document;
  std::thread client([&] { document = fetch(address); });
  Brelo::Platform::doEventLoop();  // until the server has let go of everything
  client.join();
  std::cout << document << "\n";
  ::unlink(path.c_str());
  ::rmdir(directory);
} catch (std::exception const& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
