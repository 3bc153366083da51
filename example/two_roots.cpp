// Two threads, each with an event loop and a scheduler of its own, that talk over a socket pair.
//
//   build/release/example/two_roots
//
// Nothing of one thread's tree may be touched from the other: no task, no control, no snapshot.
// What passes between them are bytes. Each loop ends by itself when its player has gone.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Thread.h"

/// Answers each number with the next one, up to ten. Messages are whole: the socket keeps them so.
class Player : public Brelo::FileDescriptorTask {
 public:
  /// Owns `fd`. Calls `ended`, which may give the player up, when the other side has gone.
  Player(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::string name, int fd,
         std::function<void()> ended)
      : FileDescriptorTask(std::move(scheduler), Brelo::TaskPriority::normal, std::move(name)),
        ended_(std::move(ended)) {
    taskWatchFdIs(fd);
  }
  ~Player() override {
    int const fd = taskWatchFd();
    taskWatchFdDel();
    ::close(fd);
  }

  void say(int number) {
    std::printf("%s says %d\n", taskName().c_str(), number);
    unsent_ = number;
    scheduleTaskWritable();
  }

  void taskExecuteReadable() override {
    int number = 0;
    ssize_t const got = ::recv(taskWatchFd(), &number, sizeof number, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got != sizeof number || number == 10) return ended_();
    say(number + 1);
  }
  void taskExecuteWritable() override {
    ssize_t const sent = ::send(taskWatchFd(), &unsent_, sizeof unsent_, MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return taskWatchWritableIs(true);
    if (sent < 0) ended_();
  }

 private:
  std::function<void()> const ended_;
  int unsent_ = 0;
};

void play(char const* name, int fd, bool begins) {
  Brelo::useThreadLocalSingletons();  // first of all: the choice is final
  Brelo::threadNameIs(name);
  std::shared_ptr<Player> player;
  player = std::make_shared<Player>(Brelo::schedulerRootBrelo(), name, fd, [&] { player.reset(); });
  if (begins) player->say(1);
  Brelo::Platform::doEventLoop();
  std::printf("%s has done\n", name);
}

int main() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    std::perror("socketpair");
    return 1;
  }
  std::thread left(play, "left", ends[0], true);
  std::thread right(play, "right", ends[1], false);
  left.join();
  right.join();
}
