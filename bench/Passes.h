#pragma once

#include <event2/event_struct.h>
#include <sys/eventfd.h>
#include <uv.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <cstdint>

#include "Peers.h"
#include "Run.h"

namespace Bench {

// One callback that asks for its next call, `count` times. A pass is what each loop does for it:
// one callback and one look at the descriptors with the poll call, without waiting.

/// A zero timer that adds itself again: the loop polls, then finds the timer due.
template <class Work>
double libeventPasses(int flags, std::uint64_t count) {
  struct Pass {
    explicit Pass(std::uint64_t passes) : run(passes) {}
    void call() {
      work.begin();
      if (!run.finished()) request();
      work.end();
    }
    void request() {
      timeval const zero{};
      event_add(&timer, &zero);
    }
    event timer;
    Work work;
    Run run;
  };
  LibeventBase const base = makeLibeventBase(flags);
  Pass pass(count);
  event_assign(
      &pass.timer, base.get(), -1, 0,
      [](evutil_socket_t, short, void* self) { static_cast<Pass*>(self)->call(); }, &pass);
  pass.request();
  event_base_dispatch(base.get());
  return pass.run.seconds();
}

/// An idle handle: called once a pass, and the loop then polls. It needs no request, so this is
/// the cheapest pass that there is. A zero timer will not do: started again from its own
/// callback it runs again in the same pass, and the loop never polls.
template <class Work>
double uvPasses(std::uint64_t count) {
  struct Pass {
    explicit Pass(std::uint64_t passes) : run(passes) {}
    void call() {
      work.begin();
      if (run.finished()) uv_idle_stop(&idle);
      work.end();
    }
    uv_idle_t idle;
    Work work;
    Run run;
  };
  Pass pass(count);
  UvLoop loop;
  uv_idle_init(loop.get(), &pass.idle);
  pass.idle.data = &pass;
  uv_idle_start(&pass.idle, [](uv_idle_t* handle) { static_cast<Pass*>(handle->data)->call(); });
  uv_run(loop.get(), UV_RUN_DEFAULT);
  return pass.run.seconds();
}

/// A handler that posts itself. The reactor is an entry in the same queue and is polled whenever
/// its turn comes, which with one handler is before each call. `run()` does that with less work
/// than a loop of `poll_one()`. Without a descriptor there is no reactor, and nothing to poll.
template <class Work>
double asioPasses(std::uint64_t count) {
  struct Pass {
    Pass(AsioContext& asioContext, std::uint64_t passes) : context(asioContext), run(passes) {}
    void call() {
      work.begin();
      if (run.finished()) {
        context.stop();
      } else {
        request();
      }
      work.end();
    }
    void request() {
      boost::asio::post(context, [this] { call(); });
    }
    AsioContext& context;
    Work work;
    Run run;
  };
  AsioContext context;
  boost::asio::posix::stream_descriptor idle(context, eventfd(0, EFD_CLOEXEC));
  idle.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                  [](boost::system::error_code const&) {});
  Pass pass(context, count);
  pass.request();
  context.run();
  return pass.run.seconds();
}

}  // namespace Bench
