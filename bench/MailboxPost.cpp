// Threads post calls to a loop that runs on another one. A post is the whole way of a call, from
// its making on the poster's thread to its destruction on the loop's; the CPU time is that of all
// threads. uv_async folds wakes, so its users keep a queue beside it, and so does this.

#include <semaphore.h>
#include <uv.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/Mailbox.h"
#include "Catalogue.h"
#include "Peers.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t posts = 200'000;
constexpr std::uint64_t singlePosts = 10'000;

/// The loops: `run(start)` calls `start` with a function that posts, runs until `stop()`, which is
/// called from inside of a post.
class OurLoop {
 public:
  template <class Start>
  void run(Start start) {
    start([sender = mailbox_->sender()](auto call) { sender.post(std::move(call)); });
    Brelo::Platform::doEventLoop();
  }
  void stop() { mailbox_.reset(); }

 private:
  std::shared_ptr<Brelo::TaskSchedulerRoot> root_ = Brelo::schedulerRootBreloNonShared("bench");
  std::optional<BreloDaemon::Mailbox> mailbox_{std::in_place, root_, Brelo::TaskPriority::normal,
                                               "posts"};
};

class AsioLoop {
 public:
  template <class Start>
  void run(Start start) {
    start([this](auto call) { boost::asio::post(context_, std::move(call)); });
    context_.run();
  }
  void stop() { context_.stop(); }

 private:
  boost::asio::io_context context_{1};  // one thread runs it, others may post
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
};

class UvQueueLoop {
 public:
  UvQueueLoop() {
    async_.data = this;
    uv_async_init(loop_.get(), &async_,
                  [](uv_async_t* async) { static_cast<UvQueueLoop*>(async->data)->runAll(); });
  }
  template <class Start>
  void run(Start start) {
    start([this](auto call) {
      {
        std::lock_guard const lock(mutex_);
        queue_.emplace_back(std::move(call));
      }
      uv_async_send(&async_);
    });
    uv_run(loop_.get(), UV_RUN_DEFAULT);
  }
  void stop() { uv_stop(loop_.get()); }

 private:
  void runAll() {
    {
      std::lock_guard const lock(mutex_);
      queue_.swap(taken_);
    }
    for (auto const& call : taken_)
      call();
    taken_.clear();
  }

  uv_async_t async_;
  std::mutex mutex_;
  std::vector<std::function<void()>> queue_;
  std::vector<std::function<void()>> taken_;
  UvLoop loop_;  // last: it closes the handle
};

/// As many posters as there are, as fast as they can.
template <class Loop>
double floods(unsigned posters, std::uint64_t count) {
  Loop loop;
  std::vector<std::thread> threads;
  Run run(count);
  loop.run([&](auto post) {
    for (unsigned i = 0; i < posters; ++i) {
      std::uint64_t const share = count / posters + (i < count % posters ? 1 : 0);
      threads.emplace_back([&, post, share] {
        for (std::uint64_t left = share; left > 0; --left) {
          post([&] {
            if (run.finished()) loop.stop();
          });
        }
      });
    }
  });
  for (auto& thread : threads)
    thread.join();
  return run.seconds();
}

/// One post after the other, each to a loop that sleeps. From the post to its run, and the CPU time
/// that this takes.
template <class Loop>
std::vector<double> singles(std::uint64_t count) {
  Loop loop;
  sem_t ran;
  sem_init(&ran, 0, 0);
  double latency = 0;
  std::thread poster;
  Run run(count);
  loop.run([&](auto post) {
    poster = std::thread([&, post] {
      for (std::uint64_t left = count; left > 0; --left) {
        post([&, posted = clockSeconds(CLOCK_MONOTONIC)] {
          latency += clockSeconds(CLOCK_MONOTONIC) - posted;
          if (run.finished()) loop.stop();
          sem_post(&ran);
        });
        while (sem_wait(&ran) != 0) {
        }
      }
    });
  });
  poster.join();
  sem_destroy(&ran);
  double const each = 1e9 / static_cast<double>(count);
  return {latency * each, run.seconds() * each};
}

}  // namespace

void addMailboxPost(Catalogue& catalogue) {
  std::string const unit = "post";
  for (unsigned const posters : {1U, 4U}) {
    std::string const form = posters == 1 ? "1 poster" : std::to_string(posters) + " posters";
    auto const of = [=](auto flood) {
      return [=](std::uint64_t count) { return flood(posters, count); };
    };
    catalogue.measureBackends(unit, form, posts, of(floods<OurLoop>));
    catalogue.measure(unit, form, "libuv", posts, of(floods<UvQueueLoop>));
    catalogue.measure(unit, form, "asio", posts, of(floods<AsioLoop>));
    catalogue.aimOnBackends(unit, form, 1.0, "asio");
  }
  std::vector<Figure> const figures{{unit, "one at a time: latency", "ns"},
                                    {unit, "one at a time", "CPU ns"}};
  catalogue.measureFiguresOnBackends(figures, singlePosts, singles<OurLoop>);
  catalogue.measureFigures(figures, "libuv", singlePosts, singles<UvQueueLoop>);
  catalogue.measureFigures(figures, "asio", singlePosts, singles<AsioLoop>);
}

}  // namespace Bench
