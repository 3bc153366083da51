// The reports while memory runs out: each allocation of each way to a report fails once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"
#include "support/ReportedTree.h"

using namespace Brelo;
using BreloTest::FailingMemory;
using BreloTest::IdleTask;

namespace {

/// A tree with a group, whose report takes several blocks.
struct LargeTree {
  LargeTree() {
    for (unsigned i = 0; i < 100; ++i) {
      std::string const name = "a name that takes memory " + std::to_string(i);
      tasks.push_back(
          std::make_shared<IdleTask>(i % 2 == 0 ? group : top, TaskPriority::low, name));
      tasks.back()->taskTotalRunTime = TaskTimeDuration(i);
    }
  }
  auto freeze() const {
    return root->snapshot("", true, true, true, TaskSchedulerSnapshot::displayOrderUnset);
  }

  std::shared_ptr<TaskSchedulerRoot> root = schedulerRootBreloNonShared("a root");
  std::shared_ptr<TaskScheduler> top = root;
  std::shared_ptr<TaskScheduler> group =
      TaskGroup::TaskGroupIs("a group", TaskPriority::normal, false, root);
  std::vector<std::shared_ptr<IdleTask>> tasks;
};

/// Does it again and again, each time with another allocation failing, until none is left.
void sweep(char const* what, std::function<void()> const& operation) {
  unsigned long refused = 0;
  unsigned long survived = 0;
  for (unsigned long nth = 1;; ++nth) {
    SCOPED_TRACE(testing::Message() << what << ", allocation " << nth);
    FailingMemory const memory(nth);
    try {
      operation();
      if (!memory.failed()) break;
      ++survived;
    } catch (std::bad_alloc const&) {
      ++refused;
    }
  }
  std::printf("%s: %lu allocations, refused %lu, survived %lu\n", what, refused + survived, refused,
              survived);
  std::fflush(stdout);
  EXPECT_GT(refused, 0U);
}

TEST(ReportMemory, IsWholeOrRefused) {
  LargeTree const tree;
  auto const json = [&] { return tree.root->statsRenderJsonToString(true, true, true); };
  auto const text = [&] {
    return tree.root->statsRenderTextForDebugToString(true, true, true, true);
  };
  auto const history = [&] { return tree.root->historyRenderTextForDebugToString(); };
  std::string const expectedJson = json();
  std::string const expectedText = text();
  std::string const expectedHistory = history();
  sweep("JSON", [&] { EXPECT_EQ(json(), expectedJson); });
  sweep("text", [&] { EXPECT_EQ(text(), expectedText); });
  sweep("history", [&] { EXPECT_EQ(history(), expectedHistory); });

  auto const frozen = tree.freeze();
  sweep("a document on a stream", [&] {
    std::ostringstream out;
    out.exceptions(std::ios::badbit);
    auto const context = TaskScheduler::PrintContextIs(out);
    try {
      frozen->renderJson(*context);
    } catch (std::bad_alloc const&) {
      EXPECT_NO_THROW(context->closeJson());
      throw;
    }
    context->closeJson();
    EXPECT_EQ(out.str(), expectedJson);
  });
  int const nowhere = open("/dev/null", O_WRONLY);
  sweep("a descriptor", [&] {
    tree.root->statsRenderTextForDebug(nowhere, true, true, true, true);
    tree.root->statsRenderJsonToBlockingFdForTest(nowhere, true, true, true);
  });
  close(nowhere);
}

TEST(ReportMemory, IsNotTakenForTasksThatHaveEnded) {
  auto const root = schedulerRootBreloNonShared("root");
  for (int i = 0; i < 20'000; ++i) {
    IdleTask ended(root, TaskPriority::low, "ended");
    ended.includeInCompletedTaskIs(false);
  }
  IdleTask const lives(root, TaskPriority::low, "lives");
  BreloTest::takeLargestBlock();
  auto const frozen =
      root->snapshot("", true, true, true, TaskSchedulerSnapshot::displayOrderUnset);
  EXPECT_EQ(frozen->tasks().size(), 1U);
  EXPECT_LT(BreloTest::takeLargestBlock(), 100'000U);
}

class ExportMemory : public BreloTest::OnBothBackends {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
};
INSTANTIATE_BOTH_BACKENDS(ExportMemory);

struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0); }
  ~Pipe() { close(ends[0]); }
  int reader() const { return ends[0]; }
  int writer() const { return ends[1]; }
  void readInto(std::string& text) const {
    char block[4096];
    for (ssize_t n = read(ends[0], block, sizeof block); n > 0;
         n = read(ends[0], block, sizeof block))
      text.append(block, static_cast<std::size_t>(n));
  }
  int ends[2];
};

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

TEST_P(ExportMemory, EndsWithTheExportWhole) {
  run([] {
    LargeTree const tree;
    auto const frozen = tree.freeze();
    std::string const expected = tree.root->statsRenderJsonToString(true, true, true);
    std::string text;
    text.reserve(2 * expected.size());
    auto const once = [&](unsigned long nth) {
      Pipe const pipe;
      fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
      text.clear();
      int done = 0;
      bool given = false;
      FailingMemory const memory(nth);
      try {
        tree.root->snapshotRenderJsonAsync(pipe.writer(), {frozen}, [&] { ++done; });
        given = true;
        while (done == 0) {
          Platform::doEventLoopInWaitfor(0.0);
          pipe.readInto(text);
        }
        EXPECT_EQ(text, expected);
      } catch (std::bad_alloc const&) {
        if (given) tree.root->requestSchedulerRun();  // an exception from a run leaves it standing
      }
      EXPECT_EQ(done, given ? 1 : 0);
      EXPECT_EQ(isOpen(pipe.writer()), !given);
      if (!given) close(pipe.writer());
      return memory.failed();
    };
    once(0);
    auto const owners = tree.root.use_count();
    unsigned long nth = 1;
    for (; once(nth) && !HasFailure(); ++nth) {
      SCOPED_TRACE(nth);
      EXPECT_EQ(tree.root.use_count(), owners);
      // All goes on as before.
      EXPECT_FALSE(once(0));
    }
    std::printf("export: %lu allocations\n", nth - 1);
  });
}

TEST_P(ExportMemory, ReleasesAllWhenTheCallersFunctionThrows) {
  run([] {
    LargeTree const tree;
    auto const owners = tree.root.use_count();
    Pipe const pipe;
    tree.root->snapshotRenderJsonAsync(pipe.writer(), {},
                                       [] { throw std::runtime_error("not done"); });
    EXPECT_THROW(Platform::doEventLoopInWaitfor(0.1), std::runtime_error);
    EXPECT_EQ(tree.root.use_count(), owners);
    EXPECT_FALSE(isOpen(pipe.writer()));
  });
}

TEST_P(ExportMemory, HoldsOneChunkWhileItWaits) {
  run([] {
    LargeTree tree;
    tree.tasks.push_back(
        std::make_shared<IdleTask>(tree.root, TaskPriority::low, std::string(1'000'000, 'n')));
    auto const freeze = [&] { return tree.root->snapshot("", true, false, false, 0); };
    std::size_t const chunk = tree.root->statsRenderJsonToString(true, false, false).size();
    Pipe const pipe;
    std::string text;
    text.reserve(3 * chunk);
    auto const before = BreloTest::liveBytes();
    bool done = false;
    tree.root->snapshotRenderJsonAsync(pipe.writer(), {freeze(), freeze()}, [&] { done = true; });
    for (std::size_t const readUpTo : {std::size_t{0}, chunk + chunk / 2}) {
      while (text.size() < readUpTo) {
        Platform::doEventLoopInWaitfor(0.0);
        pipe.readInto(text);
      }
      Platform::doEventLoopInWaitfor(0.001);
      Platform::doEventLoopInWaitfor(0.001);
      EXPECT_GT(BreloTest::liveBytes(), before + chunk);
      EXPECT_LT(BreloTest::liveBytes(), before + chunk + chunk / 4);
    }
    while (!done) {
      Platform::doEventLoopInWaitfor(0.0);
      pipe.readInto(text);
    }
  });
}

}  // namespace
