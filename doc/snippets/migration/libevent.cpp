// The code of doc/migration/libevent.md.
#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string_view>

#include "Brelo/LibeventFactory.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/Thread.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/Stream.h"
#include "MigrationSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;

namespace {

struct Pair {
  Pair() { (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends); }
  int ends[2];
};

// A tick, and what comes over a socket, with libevent.
void before(int fd, int peer) {
  event_base* const base = event_base_new();
  auto const onRead = [](evutil_socket_t socket, short, void* given) {
    char buffer[4096];
    ssize_t const got = ::read(socket, buffer, sizeof buffer);
    if (got > 0) std::printf("got %zd bytes\n", got);
    if (got == 0) event_base_loopexit(static_cast<event_base*>(given), nullptr);
  };
  event* const readable = event_new(base, fd, EV_READ | EV_PERSIST, onRead, base);
  event_add(readable, nullptr);
  auto const onTick = [](evutil_socket_t, short, void* given) {
    static int ticks = 0;
    int const to = *static_cast<int*>(given);
    if (++ticks < 3) {
      (void)!::write(to, "tick", 4);
    } else {
      ::shutdown(to, SHUT_WR);
    }
  };
  event* const timer = event_new(base, -1, EV_PERSIST, onTick, &peer);
  timeval const period{0, 10'000};
  event_add(timer, &period);
  event_base_dispatch(base);
  event_free(timer);
  event_free(readable);
  event_base_free(base);
}

// The same as tasks, each with a name, a priority and its accounts.
void after(Descriptor fd, int peer) {
  auto const root = Brelo::schedulerRootBrelo();
  int ticks = 0;
  FunctionTimer timer(root, Brelo::TaskPriority::normal, "tick", [&] {
    if (++ticks < 3) {
      (void)!::write(peer, "tick", 4);
    } else {
      ::shutdown(peer, SHUT_WR);
    }
  });
  auto const stream =
      std::make_shared<Stream>(root, Brelo::TaskPriority::normal, "peer", std::move(fd));
  stream->receive([](std::string_view bytes) {
    std::printf("got %zu bytes\n", bytes.size());
    return bytes.size();
  });
  stream->onEnd([&](StreamEnd, std::error_code) { timer.cancel(); });
  timer.every(10ms);
  Brelo::Platform::doEventLoop();
}

// What is not moved yet stays on the base that the library's own controls are on.
void sideBySide() {
  Brelo::leInit();
  auto const root = Brelo::schedulerRootBrelo();
  int calls = 0;
  auto const old = [](evutil_socket_t, short, void* count) { ++*static_cast<int*>(count); };
  event* const timer = event_new(Brelo::ev_base, -1, 0, old, &calls);
  timeval const soon{0, 1000};
  event_add(timer, &soon);
  FunctionTimer task(root, Brelo::TaskPriority::normal, "new", [&] { ++calls; });
  task.once(2ms);
  Brelo::Platform::doEventLoop();
  event_free(timer);
  std::printf("%d calls\n", calls);
}

}  // namespace

void fromLibevent() {
  Brelo::useThreadLocalSingletons();
  Pair first;
  before(first.ends[0], first.ends[1]);
  ::close(first.ends[0]);
  ::close(first.ends[1]);
  Pair second;
  after(Descriptor(second.ends[0]), second.ends[1]);
  ::close(second.ends[1]);
  sideBySide();
}
