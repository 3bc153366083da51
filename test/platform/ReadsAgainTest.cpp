#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

// Clients that wait for their turn with their reads off, then read, and turn them on again with
// `setReadsAgain()`.

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;

struct Enough {};

/// One client is served in each pass, or so many. The peer of one that has been served asks again
/// at once.
struct Circle {
  struct Client {
    SocketPair pair;
    Watch watch{-1, true, false};
    bool waits = false;
    bool silent = false;  // its peer asks no more
    bool gone = false;
    std::size_t take = 64;  // of what there is at each turn
    int served = 0;
  };

  explicit Circle(std::size_t count) : clients(count) {
    for (Client& client : clients) {
      client.watch.read.action = [&client, this] {
        if (client.gone) return client.watch.control->delFd();
        EXPECT_FALSE(std::exchange(client.waits, true)) << "told with its reads off";
        client.watch.control->setReads(false);
        waiting.push_back(&client);
        turn.control->requestCallback();
      };
      client.watch.control->setFd(client.pair.near());
      client.pair.send();
    }
    turn.action = [this] { serveFirst(); };
  }

  void serveFirst() {
    for (int i = 0; i < atATime && !waiting.empty(); ++i) {
      Client& client = *waiting.front();
      waiting.pop_front();
      if (!client.gone) answer(client);
    }
    if (!waiting.empty()) turn.control->requestCallback();
    if (--left == 0) throw Enough();
  }

  void answer(Client& client) {
    char bytes[64];
    EXPECT_GT(read(client.pair.near(), bytes, client.take), 0) << "told of what is not there";
    client.waits = false;
    ++client.served;
    turnReadsOn(client);
    afterTurn();
    if (!client.silent) client.pair.send();
  }

  /// A client whose reads are refused has another turn, as there is nobody else to turn them on.
  void turnReadsOn(Client& client) {
    try {
      client.watch.control->setReadsAgain(static_cast<unsigned>(waiting.size()));
    } catch (...) {
      client.waits = true;
      waiting.push_back(&client);
      client.pair.send();
      throw;
    }
  }

  void serve(int count) {
    left = count;
    // After an exception somebody has to ask for the next call.
    if (!waiting.empty()) turn.control->requestCallback();
    EXPECT_THROW(doEventLoop(10.0), Enough);
  }

  /// System calls that change what is watched, while so many are served.
  std::size_t changes(int count) {
    std::size_t const enough = 100'000;
    FaultInjection const counting({{"epoll_ctl", std::vector<int>(enough, 0)}});
    serve(count);
    return enough - counting.left().at("epoll_ctl").size();
  }

  std::deque<Client> clients;
  std::deque<Client*> waiting;
  Callback turn;
  std::function<void()> afterTurn = [] {};
  int left = 0;
  int atATime = 1;
};

class ReadsAgain : public OnBothBackends {
 protected:
  /// In one of which it is watched by edges already, whatever the backend.
  void inTheFirstTwoTurns(std::function<void(int turn)> const& body) {
    run([&] {
      for (int const turn : {1, 2})
        body(turn);
    });
  }
};
INSTANTIATE_BOTH_BACKENDS(ReadsAgain);

TEST_P(ReadsAgain, CostNoSystemCallWhereAllIsReadAndTheNextRequestComesInTime) {
  run([] {
    Circle circle(40);
    circle.serve(1000);                        // until the watches know their clients
    EXPECT_LE(circle.changes(4000), 40U);      // of the first and the last turns
    EXPECT_EQ(circle.clients[7].served, 125);  // each in turn
  });
}

/// In a circle of others a client that reads a byte at a time. Its peer has sent five.
struct SlowOne : Circle {
  /// `whenLeft` is called in that turn of its own.
  explicit SlowOne(int which) : Circle(40) {
    serve(1000);
    slow.silent = idle.silent = true;
    serve(80);  // their peers have nothing under way
    EXPECT_FALSE(slow.waits || idle.waits);
    slow.take = 1;
    slow.served = idle.served = 0;
    for (int i = 0; i < 5; ++i)
      slow.pair.send();
    afterTurn = [this, which] {
      if (slow.served == which && turns++ == 0) whenLeft();
    };
  }

  Client& slow = clients[3];
  Client& idle = clients[5];
  int turns = 0;  // since then
  std::function<void()> whenLeft = [] {};
};

TEST_P(ReadsAgain, WhatIsLeftUnreadIsToldSoon) {
  inTheFirstTwoTurns([](int turn) {
    SlowOne circle(turn);
    circle.whenLeft = [&] {
      circle.afterTurn = [&] {
        if (circle.slow.waits) circle.left = 1;
        ++circle.turns;
      };
    };
    circle.serve(1000);
    EXPECT_LT(circle.turns - 1, 40);
  });
}

TEST_P(ReadsAgain, WhatIsLeftUnreadIsToldBeforeTheLoopWaits) {
  inTheFirstTwoTurns([](int number) {
    enum class Rest { nobodyWaits, cancelled, thrown };
    for (auto const rest : {Rest::nobodyWaits, Rest::cancelled, Rest::thrown}) {
      SlowOne circle(number);
      auto& turn = circle.turn;
      circle.whenLeft = [&] {
        for (auto& each : circle.clients)
          each.silent = true;
        circle.waiting.clear();
        if (rest == Rest::thrown) throw std::runtime_error("turn");
        if (rest == Rest::nobodyWaits) return;
        turn.action = [&] {
          turn.control->requestCallback();
          circle.serveFirst();
        };
        turn.action();
      };
      Timer cancels([&] {
        turn.control->cancelCallback();
        turn.action = [&] { circle.serveFirst(); };
      });
      if (rest == Rest::cancelled) cancels.control->setTimeout(0.005);
      Timer sends([&] { circle.idle.pair.send(); });
      sends.control->setTimeout(0.02);
      circle.left = 0;
      turn.control->requestCallback();
      if (rest == Rest::thrown) {
        EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
      }
      EXPECT_TRUE(runUntil([&] { return sends.runs == 1 && circle.idle.served == 1; }));
      EXPECT_EQ(circle.slow.served, 5);
    }
  });
}

TEST_P(ReadsAgain, ARefusalAsTheLoopComesToRestLosesNobody) {
  run([] {
    int madeUpFor = 0;
    for (int before = 0; before < 20; ++before) {
      SlowOne circle(2);
      std::optional<FaultInjection> refusal;
      circle.whenLeft = [&] {
        for (auto& each : circle.clients)
          each.silent = true;
        circle.waiting.clear();
        std::vector<int> changes(static_cast<std::size_t>(before), 0);
        changes.push_back(ENOMEM);
        refusal.emplace(Faults{{"epoll_ctl", changes}});
      };
      circle.left = 0;
      for (bool told = false; !told;) {
        circle.turn.control->requestCallback();
        try {
          EXPECT_TRUE(runUntil([&] { return circle.slow.served >= 5; }));
          told = true;
        } catch (std::system_error const&) {
        }
      }
      if (refusal->left().empty()) ++madeUpFor;
    }
    EXPECT_GT(madeUpFor, 0);
  });
}

TEST_P(ReadsAgain, WhoAlwaysLeavesSomethingHasItsTurnAsOftenAsTheOthers) {
  run([] {
    for (int const atATime : {1, 2}) {
      Circle circle(24 * atATime);
      circle.atATime = atATime;
      for (int slow : {3, 4}) {
        circle.clients[slow].silent = true;
        circle.clients[slow].take = 1;
        for (int i = 0; i < 200; ++i)
          circle.clients[slow].pair.send();
      }
      circle.serve(24 * 40);
      // In two of seventeen turns it is told later, which costs it less than a round.
      for (int slow : {3, 4})
        EXPECT_GE(circle.clients[slow].served, 40 - 6);
    }
  });
}

TEST_P(ReadsAgain, APeerThatSendsOutOfTurnIsNotReportedForEachByte) {
  run([] {
    Circle circle(40);
    circle.serve(1000);
    auto& flooding = circle.clients[3];
    flooding.watch.read.runs = flooding.served = 0;
    circle.afterTurn = [&] { flooding.pair.send(); };
    std::size_t const changes = circle.changes(4000);
    EXPECT_LE(flooding.watch.read.runs, flooding.served + 1);
    // Two for each time that it is found to do so, and one for a turn until the next time.
    EXPECT_LE(changes, 2U * 100U + 20U);
  });
}

TEST_P(ReadsAgain, TurnedOnInAnyOtherWayTheyTellWhatIsThereAtTheNextLook) {
  inTheFirstTwoTurns([](int turn) {
    enum class Way { off, offAndOn, otherDescriptor };
    for (auto const way : {Way::off, Way::offAndOn, Way::otherDescriptor}) {
      SlowOne circle(turn);
      auto& control = *circle.slow.watch.control;
      SocketPair other;
      circle.whenLeft = [&] {
        control.setReads(way == Way::otherDescriptor);
        if (way == Way::offAndOn) control.setReads(true);
        if (way == Way::otherDescriptor) control.setFd(dup2(circle.slow.pair.near(), other.near()));
        circle.afterTurn = [&] {
          if (++circle.turns == 2 && way == Way::off) control.setReads(true);
          if (circle.turns == 4) circle.left = 1;
        };
      };
      circle.serve(1000);
      EXPECT_TRUE(circle.slow.waits);
    }
  });
}

TEST_P(ReadsAgain, WhoStaysOnIsToldAtEachLook) {
  inTheFirstTwoTurns([](int turn) {
    SlowOne circle(turn);
    circle.whenLeft = [&] {
      circle.slow.watch.read.action = [&] {
        char byte;
        EXPECT_EQ(read(circle.slow.pair.near(), &byte, 1), 1);
        ++circle.slow.served;
      };
      circle.left = 40 + 4;
    };
    circle.serve(1000);
    EXPECT_EQ(circle.slow.served, 5);
  });
}

TEST_P(ReadsAgain, AForkedChildIsToldWhatIsLeft) {
  inTheFirstTwoTurns([](int turn) {
    SlowOne circle(turn);
    circle.whenLeft = [&] { circle.left = 1; };
    circle.serve(1000);
    EXPECT_TRUE(passesInChild([&] {
      circle.serve(1000);
      EXPECT_EQ(circle.slow.served, 5);
    }));
  });
}

TEST_P(ReadsAgain, OneMayEndAndOneThatIsClosedMeetsTheError) {
  int told = 0;
  inTheFirstTwoTurns([&](int turn) {
    for (bool const closed : {true, false}) {
      SlowOne circle(turn);
      auto& slow = circle.slow;
      circle.whenLeft = [&] {
        slow.gone = true;
        closed ? void(close(std::exchange(slow.pair.ends[0], -1))) : slow.watch.control.reset();
      };
      circle.serve(1000);
      if (closed && slow.watch.control->getFd() == -1) ++told;
    }
  });
  EXPECT_EQ(told, 1);  // that of which is to be asked what is left
}

TEST_P(ReadsAgain, WhatTheKernelRefusesIsMadeUpFor) {
  run([] {
    Circle circle(40);
    circle.serve(1000);
    for (auto& client : circle.clients)
      client.take = 1, client.pair.send();  // each leaves something
    for (int error : {ENOMEM, ENOSPC, ENOENT}) {
      circle.left = 300;
      for (bool served = false; !served;) {
        circle.turn.control->requestCallback();
        FaultInjection const refusal({{"epoll_ctl", {0, error}}});
        try {
          doEventLoop(10.0);
          FAIL() << "nobody is told any more";
        } catch (Enough const&) {
          served = true;
        } catch (std::exception const&) {
        }
      }
    }
    for (auto& client : circle.clients)
      client.served = 0;
    circle.serve(400);
    for (auto& client : circle.clients)
      EXPECT_GT(client.served, 0);
  });
}

struct ReaderTask : Brelo::FileDescriptorTask {
  ReaderTask(std::shared_ptr<Brelo::TaskScheduler> root, Brelo::TaskPriority priority,
             std::function<void(ReaderTask&)> runs)
      : FileDescriptorTask(std::move(root), priority, "reader"), run(std::move(runs)) {
    taskWatchFdIs(pair.near());
  }
  void taskExecuteReadable() override {
    char byte;
    EXPECT_EQ(read(pair.near(), &byte, 1), 1);
    run(*this);
  }
  void taskExecuteWritable() override {}

  SocketPair pair;
  std::function<void(ReaderTask&)> run;
};

TEST_P(ReadsAgain, IsWhatATaskDoesThatHasManyOfItsLevelBeforeIt) {
  run([] {
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    std::vector<std::shared_ptr<ReaderTask>> readers;
    int left = 0;
    int runs = 0;
    auto const asksAgain = [&](ReaderTask& self) {
      ++runs;
      self.pair.send();
      if (--left == 0) Brelo::Platform::stopEventLoop();
    };
    for (int i = 0; i < 40; ++i) {
      readers.push_back(std::make_shared<ReaderTask>(root, Brelo::TaskPriority::normal, asksAgain));
      readers.back()->pair.send();
    }
    auto const serve = [&](int count) {
      left = count;
      doEventLoop();
    };
    serve(1000);
    std::size_t const enough = 10'000;
    FaultInjection const counting({{"epoll_ctl", std::vector<int>(enough, 0)}});
    serve(4000);
    EXPECT_LE(enough - counting.left().at("epoll_ctl").size(), 40U);

    // One of a level where nobody waits hears at once.
    std::vector<int> its;
    auto const leavesSome = [&](ReaderTask&) { its.push_back(runs); };
    ReaderTask& high = *readers.emplace_back(
        std::make_shared<ReaderTask>(root, Brelo::TaskPriority::high, leavesSome));
    for (int i = 0; i < 10; ++i)
      high.pair.send();
    serve(100);
    ASSERT_EQ(its.size(), 10U);
    EXPECT_LE(its.back() - its.front(), 20);
  });
}

}  // namespace
