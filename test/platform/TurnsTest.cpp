#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "Brelo/LibeventFactory.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

// Clients of the libevent backend that take turns.

namespace {

using namespace BreloTest;
using namespace Brelo::Platform;

/// Clients that are told once for each byte, and have their reads off until they have read it.
struct Crowd {
  struct Client {
    SocketPair pair;
    Watch watch{pair.near(), true, false};
    std::function<void()> whenTold = [] {};
    int told = 0;

    void hear() {
      ++told;
      if (watch.control) watch.control->setReads(false);
      whenTold();
    }
    void serve() {
      char byte;
      EXPECT_EQ(read(pair.near(), &byte, 1), 1) << "told of what is not there";
      watch.control->setReads(true);
    }
  };

  /// After some rounds all of them take turns.
  explicit Crowd(std::size_t count, int rounds = 3) : clients(count) {
    for (Client& each : clients)
      each.watch.read.action = [&each] { each.hear(); };
    for (; rounds > 0; --rounds)
      askAndServe();
  }
  void ask() {
    for (Client& each : clients)
      each.pair.send();
  }
  std::size_t told() const {
    return static_cast<std::size_t>(std::count_if(
        clients.begin(), clients.end(), [](Client const& each) { return each.told > 0; }));
  }
  bool untilTold(std::size_t count) {
    return runUntil([&] { return told() >= count; });
  }
  bool eachToldOnce() {
    return std::all_of(clients.begin(), clients.end(),
                       [](Client const& each) { return each.told == 1; });
  }
  void serve() {
    for (Client& each : clients) {
      each.told = 0;
      each.serve();
    }
  }
  void askAndServe() {
    ask();
    EXPECT_TRUE(untilTold(clients.size()));
    EXPECT_TRUE(eachToldOnce());
    serve();
  }
  /// System calls of so many requests of each.
  std::size_t changes(std::size_t rounds) {
    std::size_t const enough = 100'000;
    FaultInjection const counting({{"epoll_ctl", std::vector<int>(enough, 0)}});
    for (std::size_t round = 0; round < rounds; ++round)
      askAndServe();
    return enough - counting.left().at("epoll_ctl").size();
  }

  std::deque<Client> clients;
};

void onLibevent(std::function<void()> const& body) {
  onBackend(Backend::libevent, body);
}

std::string pendingText() {
  std::ostringstream text;
  pendingRender(text);
  return text.str();
}

TEST(LibeventTurns, CostOneSystemCallForARequestOfMoreThanOneLookHolds) {
  onLibevent([] {
    for (std::size_t const count : {2, 200}) {
      Crowd crowd(count);
      EXPECT_LE(crowd.changes(20), 20 * count + 40);
      FaultInjection const none({{"epoll_ctl", {EINVAL}}});
      crowd.clients[0].watch.control->setReads(false);
      crowd.clients[0].watch.control->setReads(true);
      EXPECT_FALSE(none.left().empty());
    }
  });
}

TEST(LibeventTurns, KeepTheLoopWhileSomebodyIsAwaitedAndAreListed) {
  onLibevent([] {
    Crowd crowd(3);
    EXPECT_EQ(pendingCount(), 3U);
    EXPECT_NE(pendingText().find(" reads\n"), std::string::npos);
    for (auto& each : crowd.clients)
      each.watch.control->setReads(false);
    EXPECT_EQ(pendingText(), "");
    crowd.ask();
    doEventLoop();  // returns, and tells nobody
    EXPECT_EQ(crowd.told(), 0U);
    crowd.clients[1].watch.control->setReads(true);
    EXPECT_EQ(pendingCount(), 1U);
    doEventLoop();
    EXPECT_EQ(crowd.told(), 1U);
    for (int i : {0, 2})
      crowd.clients[i].watch.control->setReads(true);
    EXPECT_TRUE(crowd.untilTold(3));
    EXPECT_TRUE(crowd.eachToldOnce());
  });
}

TEST(LibeventTurns, WhoStaysOnIsToldAtEachLookWhileThereIsSomethingToRead) {
  onLibevent([] {
    Crowd crowd(2);
    auto& member = crowd.clients[0];
    int times = 0;
    member.watch.read.action = [&] {
      if (++times % 3 != 0) return;
      char byte;
      EXPECT_EQ(read(member.pair.near(), &byte, 1), 1);
    };
    member.pair.send();
    member.pair.send();
    EXPECT_TRUE(runUntil([&] { return times == 6; }));
    doEventLoop(0.003);
    EXPECT_EQ(times, 6);
    member.pair.send();
    member.watch.read.handles = true;
    member.watch.read.action = [&] {
      if (++times == 7) throw std::runtime_error("handled");
      member.watch.control->delFd();
    };
    doEventLoop(0.003);
    EXPECT_EQ(times, 8);
  });
}

TEST(LibeventTurns, AreLeftWithTheDescriptorAndJoinedAgainWithAnother) {
  onLibevent([] {
    Crowd crowd(4);
    for (auto& each : crowd.clients) {
      SocketPair other;
      std::swap(each.pair.ends, other.ends);
      each.watch.control->setFd(each.pair.near());
      other.send();
      doEventLoop(0.0);
      EXPECT_EQ(each.told, 0) << "of the descriptor before";
    }
    for (int round = 0; round < 3; ++round)
      crowd.askAndServe();
  });
}

TEST(LibeventTurns, AHandlerMayEndItselfAndTheOthersThatAreReady) {
  onLibevent([] {
    enum class Way { reset, delFd, off, offAndOn, closeAndReuse };
    for (auto const way : {Way::reset, Way::delFd, Way::off, Way::offAndOn, Way::closeAndReuse}) {
      Crowd crowd(100);
      SocketPair silent;
      std::size_t calls = 0;
      for (auto& each : crowd.clients) {
        each.watch.read.action = [&] {
          if (++calls > 1) return each.watch.control->delFd();
          for (auto& other : crowd.clients) {
            auto& control = other.watch.control;
            if (way == Way::reset) control.reset();
            if (way == Way::delFd) control->delFd();
            if (way == Way::off || way == Way::offAndOn) control->setReads(false);
            if (way == Way::offAndOn) control->setReads(true);
            if (way == Way::closeAndReuse) dup2(silent.near(), other.pair.near());
          }
        };
      }
      crowd.ask();
      for (int looks = 0; looks < 5; ++looks)
        doEventLoop(0.0005);
      bool const goOn = way == Way::offAndOn || way == Way::closeAndReuse;
      EXPECT_TRUE(goOn ? calls >= 100 : calls == 1) << calls;
    }
  });
}

TEST(LibeventTurns, AnExceptionLeavesTheRestForTheNextEntry) {
  onLibevent([] {
    Crowd crowd(70);
    for (auto& each : crowd.clients)
      each.whenTold = [&each] {
        if (each.told == 1) throw std::runtime_error("not handled");
      };
    crowd.ask();
    for (std::size_t thrown = 1; thrown <= 70; ++thrown) {
      EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
      EXPECT_EQ(crowd.told(), thrown);
    }
    EXPECT_TRUE(crowd.eachToldOnce());
    crowd.serve();
    for (auto& each : crowd.clients)
      if (&each != &crowd.clients[7]) each.watch.control->setReads(false);
    crowd.clients[7].pair.send();
    stopEventLoop();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    EXPECT_EQ(pendingText(), "");
    crowd.clients[7].told = 0;
    crowd.clients[7].serve();
    for (auto& each : crowd.clients) {
      each.watch.control->setReads(true);
      each.whenTold = [] {};
    }
    crowd.askAndServe();
  });
}

TEST(LibeventTurns, AStopEndsTheirPassAndNoMore) {
  onLibevent([] {
    Crowd crowd(3);
    Callback callback;
    for (auto& each : crowd.clients)
      each.whenTold = [&] {
        callback.control->requestCallback();
        stopEventLoop();
      };
    for (bool const before : {false, true}) {
      crowd.ask();
      if (before) stopEventLoop();
      doEventLoop();
      EXPECT_TRUE(crowd.eachToldOnce());
      EXPECT_EQ(callback.runs, 0) << before;
      callback.control->cancelCallback();
      crowd.serve();
    }
  });
}

TEST(LibeventTurns, WhoIsAwaitedAgainInAPassThatEndsTheLoopKeepsIt) {
  onLibevent([] {
    Crowd crowd(2);
    crowd.clients[1].watch.control->setReads(false);
    auto& member = crowd.clients[0];
    Callback callback;
    callback.action = [&] { member.watch.control->setReads(true); };
    member.pair.send();
    callback.control->requestCallback();
    stopEventLoop();
    doEventLoop();
    EXPECT_EQ(member.told, 1);
    doEventLoop();
    EXPECT_EQ(member.told, 2);
  });
}

TEST(LibeventTurns, APassOfSomebodyElsesLoopIsOneOfTheirs) {
  onLibevent([] {
    Crowd crowd(3);
    crowd.ask();
    EXPECT_EQ(event_base_loop(Brelo::ev_base, EVLOOP_ONCE), 0);
    EXPECT_TRUE(crowd.eachToldOnce());
  });
}

TEST(LibeventTurns, AreMadeForABaseOfOnePriorityAsWell) {
  event_base* const plain = event_base_new();
  unsigned const before = openDescriptors();
  std::thread([&] {
    Brelo::leRegisterBase(plain);
    EXPECT_EQ(openDescriptors(), before + 1);
  }).join();
}

TEST(LibeventTurns, AForkedChildHasTheirReadsToItselfAndSoHasItsParent) {
  onLibevent([] {
    Crowd crowd(5);
    crowd.clients[3].watch.control->setReads(false);
    std::vector<std::unique_ptr<SocketPair>> pairs;
    EXPECT_TRUE(passesInChild([&] {
      for (auto& each : crowd.clients) {  // with descriptors of its own under the same numbers
        pairs.push_back(std::make_unique<SocketPair>());
        dup2(pairs.back()->ends[1], each.pair.ends[1]);
        each.watch.control->setFd(pairs.back()->near());
        each.pair.send();
      }
      EXPECT_TRUE(crowd.untilTold(4));
      crowd.clients[3].watch.control->setReads(true);
      EXPECT_TRUE(crowd.untilTold(5));
    }));
    EXPECT_TRUE(passesInChild([&] {
      crowd.ask();
      EXPECT_TRUE(crowd.untilTold(4));
      for (auto& each : crowd.clients)
        each.watch.control->delFd();
    }));
    EXPECT_TRUE(crowd.untilTold(4)) << "the child has heard what was its parent's as well";
    EXPECT_EQ(crowd.clients[3].told, 0);
    crowd.clients[3].watch.control->setReads(true);
    EXPECT_TRUE(crowd.untilTold(5));
    EXPECT_TRUE(crowd.eachToldOnce());
  });
}

TEST(LibeventTurns, WhatIsClosedHereAndOpenElsewhereTellsNobodyForGood) {
  onLibevent([] {
    Crowd crowd(3);
    auto& gone = crowd.clients[0];
    int const number = gone.pair.near();
    int const elsewhere = dup(number);
    SocketPair other;
    ASSERT_EQ(dup2(other.near(), number), number);  // closed while it is watched
    gone.watch.control->delFd();
    gone.pair.send();
    crowd.clients[1].pair.send();
    EXPECT_TRUE(runUntil([&] { return crowd.clients[1].told == 1; }));
    EXPECT_EQ(gone.told, 0);
    close(elsewhere);
  });
}

TEST(LibeventTurns, TheNumberOfWhatIsClosedMayBelongToAnotherOne) {
  onLibevent([] {
    Crowd crowd(3);
    auto& gone = crowd.clients[0];
    int const number = gone.pair.near();
    SocketPair closed;
    std::swap(closed.ends[1], gone.pair.ends[1]);
    auto& next = crowd.clients[1];
    next.watch.control->delFd();
    ASSERT_EQ(dup2(next.pair.near(), number), number);
    next.watch.control->setFd(number);
    for (int round = 0; round < 3; ++round) {
      for (int i : {1, 2})
        crowd.clients[i].pair.send();
      EXPECT_TRUE(runUntil([&] { return next.told > 0 && crowd.clients[2].told > 0; }));
      for (int i : {1, 2})
        crowd.clients[i].told = 0, crowd.clients[i].serve();
      if (round == 1) gone.watch.control.reset();
    }
  });
}

TEST(LibeventTurns, EndWithTheirThread) {
  unsigned const before = openDescriptors();
  std::unique_ptr<Crowd> crowd;
  event_base* base = nullptr;
  onLibevent([&] {
    crowd = std::make_unique<Crowd>(2);
    base = Brelo::ev_base;
  });
  crowd.reset();
  event_base_free(base);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(LibeventTurns, AreDoneWithoutWhereTheKernelOrMemoryRefuses) {
  auto const isServed = [](Crowd& crowd, Faults faults) {
    FaultInjection const injection(std::move(faults));
    for (int round = 0; round < 4; ++round)
      crowd.askAndServe();
    EXPECT_TRUE(injection.left().empty());
  };
  std::thread([&] {  // no set
    onBackend(Backend::libevent, [&] {
      FaultInjection const refusal({{"epoll_create1", {0, EMFILE}}});
      Crowd crowd(3);
      EXPECT_TRUE(refusal.left().empty());
      crowd.askAndServe();
    });
  })
      .join();
  onLibevent([&] {
    Crowd crowd(3);
    isServed(crowd, {{"epoll_ctl", {ENOENT, EBADF, ENOMEM}}});  // their turn is refused
    Crowd later(4, 1);
    // Of the changes from then on each second one takes a member in.
    isServed(later, {{"epoll_ctl", {0, ENOSPC, 0, ENOMEM, 0, 0, 0, ENOSPC}}});
    later.askAndServe();

    // Neither a turn nor a watch for one that stays on.
    auto const takesTurns = [](Crowd::Client& each) {
      FaultInjection const counting({{"epoll_ctl", std::vector<int>(1, 0)}});
      each.watch.control->setReads(false);
      each.watch.control->setReads(true);
      return !counting.left().empty();
    };
    auto const found = std::find_if(later.clients.begin(), later.clients.end(), takesTurns);
    ASSERT_NE(found, later.clients.end());
    found->watch.read.action = [&] { found->told += 1; };
    found->pair.send();
    {
      FaultInjection const refusal({{"epoll_ctl", {EBADF, ENOMEM}}});
      EXPECT_THROW(doEventLoop(1.0), std::system_error);
      EXPECT_TRUE(refusal.left().empty());
    }
    EXPECT_EQ(pendingCount(), 3U + 3U);
    doEventLoop(0.001);
    EXPECT_EQ(found->told, 1);
    found->watch.control->setReads(true);
    EXPECT_TRUE(runUntil([&] { return found->told > 1; }));
  });
}

}  // namespace
