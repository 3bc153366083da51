#pragma once

#include <event2/event.h>
#include <uv.h>

#include <boost/asio/io_context.hpp>
#include <memory>
#include <new>

namespace Bench {

// The peers' loops, each as cheap as a program of one thread can have it: none of them locks.

struct FreeBase {
  void operator()(event_base* base) const { event_base_free(base); }
};
using LibeventBase = std::unique_ptr<event_base, FreeBase>;

constexpr int libeventPlain = 0;
/// No timer is ever early, as on the project's own bases.
constexpr int libeventPrecise = EVENT_BASE_FLAG_PRECISE_TIMER | EVENT_BASE_FLAG_NO_CACHE_TIME;

/// The project's own bases make libevent lock in this process; that flag gives the peer what it
/// has in a process without threads.
inline LibeventBase makeLibeventBase(int flags) {
  event_config* const config = event_config_new();
  event_config_set_flag(config, flags | EVENT_BASE_FLAG_NOLOCK);
  LibeventBase base(event_base_new_with_config(config));
  event_config_free(config);
  if (base == nullptr) throw std::bad_alloc();
  return base;
}

class UvLoop {
 public:
  UvLoop() {
    if (uv_loop_init(&loop_) != 0) throw std::bad_alloc();
  }
  UvLoop(UvLoop const&) = delete;
  UvLoop& operator=(UvLoop const&) = delete;
  /// Closes what is still open; the handles must live until then.
  ~UvLoop() {
    uv_walk(
        &loop_, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }

  uv_loop_t* get() { return &loop_; }

 private:
  uv_loop_t loop_;
};

struct AsioContext : boost::asio::io_context {
  AsioContext() : io_context(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE) {}
};

}  // namespace Bench
