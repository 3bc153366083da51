#include "Brelo/DirNode.h"

#include <sys/stat.h>

#include <fstream>
#include <new>

#include "support/HelperTest.h"

using Brelo::DirNode;
using DirNodes = BreloTest::HelperTest;

static unsigned entries(DirNode const& node) {
  return node.readEntry() == nullptr ? 0 : 1 + entries(node);
}

TEST_F(DirNodes, AreReadAndSearchedAndShareAStreamThatTheLastOneCloses) {
  EXPECT_EQ(symlink("nowhere", "link.txt"), 0);
  EXPECT_EQ(mkdir("dir.txt", 0700), 0);
  EXPECT_EQ(mkfifo("fifo.txt", 0600), 0);
  for (auto const* name : {"a.txt", ".txt", "b.TXT", "txt", "dir.txt/only"})
    std::ofstream(name) << "text";
  unsigned const before = BreloTest::openDescriptors();
  {
    auto const parent = std::make_shared<DirNode>(*handler, ".", nullptr);
    EXPECT_NE(parent->readEntry(), nullptr);
    for (int scan = 0; scan < 2; ++scan)
      EXPECT_THAT(parent->findFiles(".txt"),
                  testing::UnorderedElementsAre("a.txt", ".txt", "link.txt"));
    EXPECT_EQ(parent->findFiles("").size(), 5u);
    parent->pathIs(parent->path());
    EXPECT_EQ(parent->readEntry(), nullptr);
    DirNode first(*handler, "dir.txt", parent);
    DirNode const copy(first);
    DirNode const moved(std::move(first));
    EXPECT_EQ(parent.use_count(), 3);
    EXPECT_EQ(BreloTest::openDescriptors(), before + 2);
    first.pathIs(".");  // NOLINT(bugprone-use-after-move): what is left is a node, too
    EXPECT_EQ(entries(first), 9u);
    EXPECT_EQ(entries(moved), 3u);
    EXPECT_EQ(entries(copy), 0u);
    copy.rewind();
    EXPECT_EQ(entries(moved), 3u);
  }
  EXPECT_EQ(BreloTest::openDescriptors(), before);
}

TEST_F(DirNodes, LeaveNothingOpenWhereMemoryRunsOut) {
  std::ofstream("a name that does not fit into a short string");
  unsigned const before = BreloTest::openDescriptors();
  std::size_t found = 0;
  for (unsigned allocations = 0; found == 0; ++allocations) {
    std::vector<int> plan(allocations);
    plan.push_back(ENOMEM);
    try {
      BreloTest::FaultInjection const injection({{"new", plan}});
      found = DirNode(*handler, ".", nullptr).findFiles("").size();
    } catch (std::bad_alloc const&) {
    }
    EXPECT_EQ(BreloTest::openDescriptors(), before) << allocations;
  }
}

TEST_F(DirNodes, FailAsTheTableSays) {
  DirNode const closed(*handler, "gone", nullptr);
  auto const opening = [&] { return DirNode(*handler, ".", nullptr).isOpen(); };
  auto const reopening = [&] { return DirNode(*handler, ".", nullptr).openDir(), "done"; };
  auto const searching = [&] { return DirNode(*handler, ".", nullptr).findFiles("x").size(); };
  EXPECT_EQ(entries(closed), 0U);
  EXPECT_THROW(closed.rewind(), Brelo::RuntimeException);
  EXPECT_THROW(closed.findFiles(""), Brelo::RuntimeException);
  BreloTest::tryFaults({
      row({{"opendir", {ENOENT}}}, opening, "false"),
      row({{"opendir", {EACCES}}}, opening, "false"),
      row({{"opendir", {ENOTDIR}}}, opening, "false"),
      row({{"opendir", {EMFILE}}}, opening, "1 failed to open . errno: Too many open files|false"),
      row({{"closedir", {EIO}}}, opening, "1 failed to close . errno: Input/output error|true"),
      row({{"closedir", {EINTR}}}, reopening,
          "1 failed to close . before reopening. errno: Interrupted system call|done"),
      row({{"readdir", {0, EIO}}}, searching,
          "Runtime: failed to read . errno: Input/output error"),
  });
}
