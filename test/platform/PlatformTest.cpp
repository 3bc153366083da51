#include "Brelo/Platform.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <deque>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

// What the platform promises on every backend.

namespace {

/// What the kernel has reported to libevent.
std::size_t reports = 0;

}  // namespace

extern "C" int epoll_wait(int set, epoll_event* events, int most, int timeout) {
  int const count = epoll_pwait(set, events, most, timeout, nullptr);
  if (count > 0) reports += static_cast<std::size_t>(count);
  return count;
}

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;

class Platform : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(Platform);

/// A handler of each kind, and what they all do.
struct Trio {
  /// The bits of `which` are the timer, the callback and the watch.
  void start(int which = 7) {
    pair.send();
    timer.control->setTimeout(which & 1 ? 0.0 : 1000.0);
    if (which & 2) callback.control->requestCallback();
    if (which & 4) watch.control->setFd(pair.near());
  }

  SocketPair pair;
  Timer timer;
  Callback callback;
  Watch watch{-1, true, true};
  Doing* const doings[4] = {&timer, &callback, &watch.read, &watch.write};
};

TEST_P(Platform, ATimerTakesAnyNumberOfSecondsAndIsIdleBeforeItsHandlerRuns) {
  run([] {
    Timer timer;
    timer.action = [&] { EXPECT_EQ(timer.control->remainingTimeout(), never); };
    int runs = 0;
    for (double const past : {0.0, 1e-9, -1e300, -never}) {
      timer.control->setTimeout(past);
      usleep(2000);
      EXPECT_EQ(timer.control->remainingTimeout() + timer.runs, runs) << past;
      doEventLoop();
      EXPECT_EQ(timer.runs, ++runs) << past;
    }
    for (double const future : {1e6, 1e19, 1e300}) {
      timer.control->setTimeout(future);
      double const start = Brelo::time();
      doEventLoop(0.002);
      EXPECT_GE(Brelo::time() - start, 0.0019);
      EXPECT_GT(timer.control->remainingTimeout(), 9e5) << future;
    }
    timer.control->setTimeout(never);
    doEventLoop();  // nothing to wait for
    EXPECT_DEATH(timer.control->setTimeout(never - never), "timeout is not a number");
    EXPECT_DEATH(doEventLoop(never - never), "Brelo::doEventLoop.*timeout is not a number");
  });
}

TEST_P(Platform, ManyTimersAndBusyHandlersAreNeverEarly) {
  run([] {
    std::mt19937 random(4711);
    Timer timers[30];
    for (auto& timer : timers) {
      timer.action = [&, due = -never]() mutable {
        // libevent cuts both the time of arming and the delay to whole microseconds; a double at
        // the present time resolves a quarter of one.
        EXPECT_GE(Brelo::time() - due, GetParam() == Backend::host ? 0.0 : -2.5e-6);
        for (double const end = Brelo::time() + random() % 20 * 1e-6; Brelo::time() < end;)
          continue;
        // One of them is longer than a coarse tick.
        double const seconds = random() % (&timer == timers ? 6000 : 80) * 1e-6;
        due = Brelo::time() + seconds;
        if (random() % 40 != 0) timer.control->setTimeout(seconds);
      };
      timer.control->setTimeout(0.0);
    }
    doEventLoop();
  });
}

TEST_P(Platform, WhoAsksAgainFromItsHandlerStarvesNobody) {
  run([] {
    Trio trio;
    trio.callback.action = [&] { trio.callback.control->requestCallback(); };
    trio.timer.action = [&] { trio.timer.control->setTimeout(0.0); };
    trio.start();
    Timer later;
    later.control->setTimeout(0.001);
    EXPECT_TRUE(runUntil([&] { return later.runs == 1; }));
    for (int i : {0, 1, 2})
      EXPECT_TRUE(runUntil([&] { return trio.doings[i]->runs > 3; }));
    EXPECT_EQ(trio.watch.write.runs, 1);
  });
}

TEST_P(Platform, AWatchFollowsItsDescriptorAndKeepsItsWishes) {
  run([] {
    SocketPair pair;
    SocketPair silent;
    pair.send();
    Watch watch(-1, true, true);
    watch.write.action = [&] { watch.control->setWrites(watch.write.runs < 4); };
    watch.control->setFd(pair.near());
    watch.control->setFd(silent.near());
    EXPECT_TRUE(runUntil([&] { return watch.write.runs == 4; }));
    EXPECT_EQ(watch.read.runs, 0);

    watch.control->delFd();
    doEventLoop();
    watch.control->setFd(silent.near());
    watch.control->setFd(-1);
    EXPECT_EQ(watch.control->getFd(), -1);
    doEventLoop();
    watch.control->setFd(silent.near());
    silent.send();
    EXPECT_TRUE(runUntil([&] { return watch.read.runs > 2; }));
    watch.control->setReads(false);
    shutdown(silent.near(), SHUT_RDWR);
    doEventLoop();  // with neither direction wanted the hang-up is nobody's affair
  });
}

/// Clients that take turns, one in a pass. Who is told, or told once more while it waits, stops
/// reading until its turn comes.
struct Turns {
  explicit Turns(bool onceMore) : clients(30) {
    for (Client& client : clients) {
      client.watch.read.action = [&client, onceMore, this] {
        if (client.waits || !onceMore) client.watch.control->setReads(false);
        if (std::exchange(client.waits, true)) return;
        waiting.push_back(&client);
        turn.control->requestCallback();
      };
      client.watch.control->setFd(client.pair.near());
    }
    turn.action = [&] {
      Client& client = *waiting.front();
      waiting.pop_front();
      client.waits = false;
      client.watch.control->setReads(true);
      char byte;
      EXPECT_EQ(read(client.pair.near(), &byte, 1), 1) << "told of what is not there";
      if (waiting.empty()) throw AllServed();
      turn.control->requestCallback();
    };
  }

  /// One request of so many of the last clients at once, that many times; the number of changes to
  /// watches.
  std::size_t changes(std::size_t asking, int rounds) {
    std::size_t const enough = 10'000;
    FaultInjection const counting({{"epoll_ctl", std::vector<int>(enough, 0)}});
    for (; rounds > 0; --rounds) {
      for (std::size_t i = clients.size() - asking; i < clients.size(); ++i)
        clients[i].pair.send();
      EXPECT_THROW(doEventLoop(), AllServed);
    }
    return enough - counting.left().at("epoll_ctl").size();
  }

  struct AllServed {};
  struct Client {
    SocketPair pair;
    Watch watch{-1, true, false};
    bool waits = false;
  };
  std::vector<Client> clients;
  std::deque<Client*> waiting;
  Callback turn;
};

TEST_P(Platform, ReadsThatAreOffWhileTheirClientWaitsCostLittle) {
  run([] {
    bool const host = GetParam() == Backend::host;
    for (bool const onceMore : {false, true}) {
      Turns turns(onceMore);
      for (std::size_t const asking : {1, 30, 1, 30}) {
        turns.changes(asking, 3);  // until the watches know their clients
        auto& told = turns.clients.back().watch.read.runs;
        told = 0;
        reports = 0;
        std::size_t const changes = turns.changes(asking, 20);
        std::size_t const requests = 20 * asking;
        // One client a round is taken for another kind, two where the last one is the next first.
        std::size_t const once = requests + (host ? 20 : 40);
        EXPECT_LE(changes, asking == 1 ? 0 : host && !onceMore ? once : 2 * once);
        EXPECT_LE(told, onceMore ? 40 : 20);
        EXPECT_LE(reports, asking > 1 && !onceMore ? once : 2 * once);
      }
      turns.turn.action = [] {};
      for (auto& client : turns.clients)
        client.pair.send();
      doEventLoop();  // what is off and ready keeps it neither busy nor alive
    }
  });
}

/// Watches whose wishes, descriptors and input change at random, also in each other's handlers; of
/// those that are `late` some turn their reads on again in the way that may take some passes,
/// beside a callback in each pass.
struct RandomReaders {
  explicit RandomReaders(bool late) : maxPasses(late ? 3 + latest : 3), again(late) {
    callback.action = [this] { callback.control->requestCallback(); };
    if (again) callback.action();
    for (Reader& reader : readers) {
      reader.watch.read.action = [&reader, this] {
        EXPECT_TRUE(reader.wants && reader.bound && (reader.input > 0 || reader.drained));
        reader.told = true;
        for (auto changes = random() % 6; changes > 0; --changes)
          change(random() % 2 == 0 ? reader : readers[random() % readers.size()]);
      };
      reader.watch.control->setFd(reader.pair.near());
    }
  }

  void run(int rounds) {
    for (; rounds > 0 && !testing::Test::HasFailure(); --rounds) {
      change(readers[random() % readers.size()]);
      pass();
      for (Reader& reader : readers) {
        reader.told = false;
        reader.mustBeTold = reader.wants && reader.bound && reader.input > 0;
      }
      for (unsigned passes = 0; passes < maxPasses; ++passes)
        pass();
      for (Reader& reader : readers)
        EXPECT_TRUE(reader.told || !reader.mustBeTold);
    }
  }

  void pass() {
    for (Reader& reader : readers)
      reader.drained = false;
    doEventLoop(0.0);
  }

  struct Reader {
    SocketPair pair;
    Watch watch{-1, true, false};
    bool wants = true, bound = true, told = false, mustBeTold = false;
    bool drained = false;  // in this pass
    int input = 0;
  };
  void change(Reader& reader) {
    reader.mustBeTold = false;  // by what was so before
    auto const kind = random() % 8;
    char byte;
    if (kind < 2) {
      reader.input += 1, reader.pair.send();
    } else if (kind < 4) {
      reader.input -= reader.drained = read(reader.pair.near(), &byte, 1) == 1;
    } else if (kind < 7) {
      reader.wants = random() % 2 == 0;
      auto& control = *reader.watch.control;
      reader.wants&& again&& random() % 4 != 0 ? control.setReadsAgain(latest)
                                               : control.setReads(reader.wants);
    } else {
      reader.bound = !reader.bound;
      reader.bound ? reader.watch.control->setFd(reader.pair.near())
                   : reader.watch.control->delFd();
    }
  }

  static constexpr unsigned latest = 16;
  unsigned const maxPasses;
  bool const again;
  std::mt19937 random;
  Callback callback;
  std::vector<Reader> readers{4};
};

TEST_P(Platform, RandomChangesLoseNoReadinessAndTellNobodyWhoDoesNotWantToKnow) {
  run([] {
    RandomReaders(false).run(20000);
    RandomReaders(true).run(5000);
  });
}

TEST_P(Platform, EachMessageIsOneRunOfADescriptorTask) {
  run([] {
    struct MessageReader : Brelo::FileDescriptorTask {
      using FileDescriptorTask::FileDescriptorTask;
      void taskExecuteReadable() override {
        char byte;
        messages += read(taskWatchFd(), &byte, 1) == 1;
      }
      void taskExecuteWritable() override {}
      unsigned messages = 0;
    };
    SocketPair pair;
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    auto const task = std::make_shared<MessageReader>(root, Brelo::TaskPriority::normal, "reader");
    task->taskWatchFdIs(pair.near());
    for (unsigned sent = 1; sent <= 1000; ++sent) {
      pair.send();
      for (int passes = 0; passes < 4; ++passes)
        doEventLoop(0.0);
      ASSERT_EQ(task->messages, sent);
    }
    EXPECT_EQ(task->taskRunCountReadable(), 1000U);
  });
}

TEST_P(Platform, AnExceptionIsHandledOrLeavesTheLoopWhichCanBeEnteredAgain) {
  run([] {
    for (bool const handles : {false, true}) {
      Trio trio;
      for (auto* const each : trio.doings) {
        each->handles = handles;
        each->action = [&trio, each] {
          if (each == &trio.watch.read) trio.watch.control->setReads(false);
          throw std::runtime_error("handler");
        };
      }
      trio.start();
      trio.callback.control->requestCallback();  // adds nothing
      for (int i = 0; i < 4 && !handles; ++i)
        EXPECT_THROW(doEventLoop(1000.0), std::runtime_error);  // the bound must go with it
      doEventLoop();
      for (auto* const each : trio.doings)
        EXPECT_EQ(each->runs, 1);
    }
  });
}

TEST_P(Platform, AHandlerThatSaysNothingOfExceptionsHandlesNone) {
  run([] {
    struct Plain : Brelo::Platform::TimeoutHandler,
                   Brelo::Platform::CallbackHandler,
                   Brelo::Platform::FdEventHandler {
      void timeout() override { throw 1; }
      void callback() override { throw 2; }
      void readFdEvent(int) override { throw 3; }
      void writeFdEvent(int) override { throw 4; }
    } plain;
    SocketPair pair;
    auto const timer = Brelo::Platform::getTimerControl(&plain);
    auto const callback = Brelo::Platform::getCallbackControl(&plain);
    auto const watch = Brelo::Platform::getFdControl(&plain);
    auto const leavesTheLoop = [] { EXPECT_THROW(doEventLoop(0.01), int); };
    timer->setTimeout(0);
    leavesTheLoop();
    callback->requestCallback();
    leavesTheLoop();
    watch->setReads(true);
    watch->setFd(pair.near());
    pair.send();
    leavesTheLoop();
    watch->setReads(false);
    watch->setWrites(true);
    leavesTheLoop();
  });
}

TEST_P(Platform, AHandlerMayStopOrDestroyWhoeverIsReadyBesideIt) {
  run([] {
    for (int mode = 2; mode <= 15; ++mode) {
      bool const destroys = mode % 2 == 1;
      int runs = 0;
      Trio trios[2];
      auto const stopAll = [&] {
        ++runs;
        for (auto& [pair, timer, callback, watch, doings] : trios) {
          destroys ? timer.control.reset() : timer.control->delTimeout();
          destroys ? callback.control.reset() : callback.control->cancelCallback();
          destroys ? watch.control.reset() : watch.control->delFd();
        }
      };
      for (auto& trio : trios) {
        trio.start(mode / 2);
        for (auto* const each : trio.doings)
          each->action = stopAll;
      }
      usleep(2000);
      doEventLoop();
      EXPECT_EQ(runs, 1) << mode;
    }
  });
}

}  // namespace
