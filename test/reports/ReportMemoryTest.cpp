// The reports while memory runs out: each allocation of each way to a report fails once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "Brelo/TaskScheduler.h"
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

}  // namespace
