#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

// No wakeup is lost: whatever writers and owners did in whatever order, once every task is allowed
// to run, all input is read.

namespace {

using namespace BreloTest;

class World;

/// Reads a little at each run, and does something at random.
struct Reader : Brelo::FileDescriptorTask {
  Reader(World& itsWorld, std::shared_ptr<Brelo::TaskScheduler> scheduler)
      : FileDescriptorTask(std::move(scheduler), Brelo::TaskPriority::normal, "fd"),
        world(itsWorld) {}
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  World& world;
  bool throws = false;
};

/// Asks for its next run in each, so that a reader of the root is not the next one.
struct Other : Brelo::Task {
  explicit Other(std::shared_ptr<Brelo::TaskScheduler> scheduler)
      : Task(std::move(scheduler), Brelo::TaskPriority::normal, "other") {}
  void taskExecute() override { scheduleTask(); }
};

/// A reader, which may have gone or have thrown, and two connections that it can be bound to.
struct Client {
  SocketPair pairs[2];
  int bound = 0;
  bool reads = true;
  std::shared_ptr<Reader> task;
};

class World {
 public:
  explicit World(unsigned seed) : random_(seed) {
    for (Client& client : clients_) {
      for (SocketPair const& pair : client.pairs)
        fcntl(pair.ends[1], F_SETFL, O_NONBLOCK);
      renew(client);
    }
    for (auto& each : others_)
      each = std::make_shared<Other>(root_);
  }

  int below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }

  void operate() {
    enum {
      writes = 40,
      suspends = 55,
      switches = 65,
      rebinds = 75,
      renews = 80,
      throwing = 83,
      unbinds = 87,
      suspendsRoot = 90,
      asks = 95,
      crowds = 97
    };
    // Often the same one again, in the same pass.
    if (below(2) == 0) latest_ = &clients_[below(clientCount)];
    Client& client = *latest_;
    Reader& task = *client.task;
    int const what = below(100);
    if (what < writes) {
      [[maybe_unused]] auto const sent = write(client.pairs[below(2)].ends[1], "12345", 5);
    } else if (what < suspends) {
      task.taskSuspendedIs(!task.taskSuspended());
    } else if (what < switches) {
      task.taskWatchReadableIs(client.reads = !client.reads);
    } else if (what < rebinds) {
      task.taskWatchFdIs(client.pairs[client.bound ^= 1].near());
    } else if (what < renews) {
      renew(client);
    } else if (what < throwing) {
      task.throws = true;
    } else if (what < unbinds) {
      below(2) == 0 ? task.taskWatchFdDel() : task.taskWatchFdIs(-1);
      if (below(2) == 0) task.taskWatchFdIs(client.pairs[client.bound].near());
    } else if (what < suspendsRoot) {
      root_->suspendedIs(!root_->suspended());
    } else if (what < asks) {
      if (client.reads) task.scheduleTaskReadable();
    } else if (what < crowds) {
      for (auto& each : others_)
        each->taskScheduled() ? each->unscheduleTask() : each->scheduleTask();
    } else {
      task.taskWatchWritableIs(true);
    }
  }

  void pass() {
    try {
      Brelo::Platform::doEventLoop(0.0);
    } catch (std::runtime_error const&) {
      // As after any exception of a task, somebody has to ask for the next run.
      group_->requestSchedulerRun();
      root_->requestSchedulerRun();
      for (Client& client : clients_) {
        if (client.task->throws) renew(client);
      }
    }
  }

  bool allIsRead() {
    root_->suspendedIs(false);
    calm_ = true;
    for (auto& each : others_)
      each->unscheduleTask();
    for (Client& client : clients_) {
      client.task->throws = false;
      client.task->taskSuspendedIs(false);
      client.task->taskWatchReadableIs(client.reads = true);
      client.task->taskWatchFdIs(client.pairs[client.bound].near());
    }
    bool const read = runUntil([&] {
      for (Client const& client : clients_) {
        pollfd waiting{client.pairs[client.bound].near(), POLLIN, 0};
        if (poll(&waiting, 1, 0) != 0) return false;
      }
      return true;
    });
    calm_ = false;
    return read;
  }
  bool calm() const { return calm_; }

 private:
  void renew(Client& client) {
    client.task = std::make_shared<Reader>(*this, below(2) == 0 ? group_ : root_);
    client.reads = true;
    client.task->taskWatchFdIs(client.pairs[client.bound].near());
  }

  static constexpr int clientCount = 6;

  std::mt19937 random_;
  std::shared_ptr<Brelo::TaskSchedulerRoot> root_ = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<Brelo::TaskScheduler> group_ =
      Brelo::TaskGroup::TaskGroupIs("group", Brelo::TaskPriority::normal, false, root_);
  Client clients_[clientCount];
  std::shared_ptr<Other> others_[20];
  Client* latest_ = clients_;
  bool calm_ = false;
};

void Reader::taskExecuteReadable() {
  auto const held = shared_from_this();
  char bytes[3];
  [[maybe_unused]] auto const got = read(taskWatchFd(), bytes, sizeof bytes);
  if (world.calm()) return;
  if (throws) throw std::runtime_error("reader");
  while (world.below(3) != 0)
    world.operate();
}

void Reader::taskExecuteWritable() {
  if (!world.calm() && throws) throw std::runtime_error("writer");
}

class DescriptorWakeup : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(DescriptorWakeup);

TEST_P(DescriptorWakeup, NoneIsLostWhateverHappens) {
  run([] {
    for (unsigned seed = 1; seed <= 20 && !testing::Test::HasFailure(); ++seed) {
      World world(seed);
      for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < 60; ++i) {
          if (world.below(3) != 0) world.operate();
          world.pass();
        }
        ASSERT_TRUE(world.allIsRead()) << "seed " << seed << " round " << round;
      }
    }
  });
}

}  // namespace
