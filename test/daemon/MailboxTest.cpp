#include "BreloDaemon/Mailbox.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/TaskSchedulerRoot.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

class MailboxTest : public OnBothBackends {
 protected:
  /// `body` with a root and a mailbox on it, named "mail".
  template <class Body>
  void runWith(Body body) {
    run([&] {
      auto const root = Brelo::schedulerRootBreloNonShared("root");
      std::optional<Mailbox> mailbox(std::in_place, root, Brelo::TaskPriority::normal, "mail");
      body(root, mailbox);
    });
  }
};
INSTANTIATE_BOTH_BACKENDS(MailboxTest);

/// Notes where it was destroyed.
struct Trail {
  explicit Trail(std::vector<std::thread::id>& where) : destroyed(&where) {}
  Trail(Trail&& other) noexcept : destroyed(std::exchange(other.destroyed, nullptr)) {}
  ~Trail() {
    if (destroyed != nullptr) destroyed->push_back(std::this_thread::get_id());
  }
  std::vector<std::thread::id>* destroyed;
};

TEST_P(MailboxTest, EachPostRunsOnceInTheOrderOfItsSender) {
  // Random pauses; posts that post, that throw, and that end the run they are in.
  runWith([&](auto const& root, auto& mailbox) {
    constexpr int senders = 4, each = 3000;
    std::vector<int> seen(senders, 0);
    int runs = 0, inner = 0, innerRuns = 0, thrown = 0;
    registeredTask(*root, "mail")->taskTestYieldRatioIs(7);
    root->taskExceptionHandlerIs([&](Brelo::_TaskBase&) { return ++thrown > 0; });
    std::vector<std::thread> threads;
    auto const post = [&](Mailbox::Sender const& sender, std::size_t who, int i, unsigned kind) {
      EXPECT_TRUE(sender.post([&, who, i, kind, sender] {
        EXPECT_EQ(std::exchange(seen[who], i + 1), i);
        if (++runs == senders * each) sender.post([&] { mailbox.reset(); });
        if (kind % 8 == 0) sender.post([&, turn = inner++] { EXPECT_EQ(innerRuns++, turn); });
        if (kind % 16 == 1) throw std::runtime_error("a post");
      }));
    };
    for (std::size_t who = 0; who < senders; ++who) {
      threads.emplace_back([&, who, sender = mailbox->sender()] {
        std::minstd_rand random(static_cast<unsigned>(who + 1));
        for (int i = 0; i < each; ++i) {
          if (random() % 64 == 0) std::this_thread::sleep_for(std::chrono::microseconds(20));
          post(sender, who, i, random() % 64);
        }
      });
    }
    Brelo::Platform::doEventLoop();
    for (auto& thread : threads)
      thread.join();
    EXPECT_EQ(seen, std::vector<int>(senders, each));
    EXPECT_EQ(runs, senders * each);
    EXPECT_GT(thrown, each / 10);
    EXPECT_GT(innerRuns, each / 3);
    EXPECT_LE(inner - innerRuns, 1);  // one of the last may stand behind the end
    root->taskExceptionHandlerIs(nullptr);
  });
}

TEST_P(MailboxTest, ABurstIsOneWakeAndOneRun) {
  runWith([](auto const& root, auto& mailbox) {
    std::string said;
    auto const sender = mailbox->sender();
    auto const say = [&](char what) { return [&said, what] { said += what; }; };
    for (int round = 0; round < 3; ++round) {
      FaultInjection const counted({{"write", {0, 0}}, {"read", {0, 0}}});
      for (char c = 'a'; c < 'z'; ++c)
        EXPECT_TRUE(sender.post(say(c)));
      EXPECT_TRUE(sender.post([&] {
        sender.post(say('3'));
        say('1')();
      }));
      EXPECT_TRUE(sender.post(say('2')));
      EXPECT_TRUE(runUntil([&] { return said.size() == 28; }));
      EXPECT_EQ(std::exchange(said, ""), "abcdefghijklmnopqrstuvwxy123");
      EXPECT_EQ(counted.left(), (Faults{{"write", {0}}, {"read", {0}}}));
    }
    auto const stat = registeredTask(*root, "mail")->getStats();
    EXPECT_EQ(stat.taskRunCount, 3);
    EXPECT_EQ(stat.taskWorkCountTotal, 3 * 28);
  });
}

TEST_P(MailboxTest, WakesAreRepeatedUntilTheySucceed) {
  runWith([](auto const&, auto& mailbox) {
    FaultInjection const faults({{"write", {EINTR, EAGAIN}}, {"read", {EINTR, EIO}}});
    bool ran = false;
    EXPECT_TRUE(mailbox->sender().post([&] { ran = true; }));
    EXPECT_TRUE(runUntil([&] { return ran && faults.left().empty(); }));
  });
}

TEST_P(MailboxTest, WhatIsLeftAtItsEndIsDestroyedUnrun) {
  runWith([](auto const&, auto& mailbox) {
    std::vector<std::thread::id> where;
    auto const sender = mailbox->sender();
    bool afterwards = true;
    sender.post([&, trail = Trail(where)] {
      sender.post([&, later = Trail(where)] { FAIL(); });
      mailbox.reset();
      afterwards = sender.post([&, late = Trail(where)] { FAIL(); });
    });
    sender.post([trail = Trail(where)] { FAIL(); });
    Brelo::Platform::doEventLoop();  // which nothing keeps any more
    EXPECT_FALSE(afterwards);
    EXPECT_EQ(where, std::vector<std::thread::id>(4, std::this_thread::get_id()));
    where.clear();
    std::thread([&] {
      EXPECT_FALSE(sender.post([trail = Trail(where)] { FAIL(); }));
      EXPECT_EQ(where, std::vector<std::thread::id>(1, std::this_thread::get_id()));
    }).join();
    EXPECT_FALSE(Mailbox::Sender().post([] { FAIL(); }));
  });
}

TEST_P(MailboxTest, WhatAPostThrowsCostsTheOthersNothing) {
  runWith([](auto const& root, auto& mailbox) {
    std::string said;
    auto const sender = mailbox->sender();
    for (char c : {'a', 'b', 'X', 'c', 'X', 'd'}) {
      sender.post([&said, c] {
        if (c == 'X') throw std::runtime_error(said);
        said += c;
      });
    }
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
    root->requestSchedulerRun();
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
    root->requestSchedulerRun();
    sender.post([&] {
      mailbox.reset();
      throw std::logic_error("its last word");
    });
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::logic_error);
    EXPECT_EQ(said, "abcd");
    root->requestSchedulerRun();
    Brelo::Platform::doEventLoop();
  });
}

TEST_P(MailboxTest, MayEndWhileOthersPost) {
  run([&] {
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    for (int round = 0; round < 50; ++round) {
      std::atomic<int> taken{0};
      std::atomic<int> destroyed{0};
      int ran = 0;
      std::vector<std::thread> threads;
      {
        Mailbox mailbox(root, Brelo::TaskPriority::normal, "mail");
        for (int who = 0; who < 3; ++who) {
          threads.emplace_back([&, sender = mailbox.sender()] {
            auto const count = [&](void*) { ++destroyed; };
            int& target = ran;
            while (sender.post([&target, owned = std::unique_ptr<int, decltype(count)>(
                                             &target, count)] { ++target; }))
              ++taken;
          });
        }
        EXPECT_TRUE(runUntil([&] { return ran > round; }));
      }
      for (auto& thread : threads)
        thread.join();
      EXPECT_EQ(destroyed, taken + 3);
      EXPECT_LE(ran, taken);
    }
  });
}

TEST_P(MailboxTest, AForkedChildHasItsOwnWakes) {
  runWith([](auto const&, auto& mailbox) {
    auto const sender = mailbox->sender();
    int ran = 0;
    auto const count = [&] { ++ran; };
    Brelo::Platform::doEventLoop(0.001);
    sender.post(count);  // and is known to both
    EXPECT_TRUE(passesInChild([&] {
      EXPECT_TRUE(runUntil([&] { return ran == 1; }));
      sender.post(count);
      EXPECT_TRUE(runUntil([&] { return ran == 2; }));
      mailbox.reset();
      Brelo::Platform::doEventLoop();
    }));
    EXPECT_TRUE(runUntil([&] { return ran == 1; }));
    sender.post(count);
    EXPECT_TRUE(passesInChild([&] { _exit(0); }));
    EXPECT_TRUE(runUntil([&] { return ran == 2; }));
  });
}

}  // namespace
}  // namespace BreloDaemon
