#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/FaultInjection.h"
#include "support/ReportedTree.h"
#include "support/TraceCapture.h"

using namespace Brelo;
using BreloTest::IdleTask;
using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

class JsonExport : public BreloTest::OnBothBackends {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
};
INSTANTIATE_BOTH_BACKENDS(JsonExport);

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(ends), 0); }
  ~Pipe() { close(ends[0]); }
  int reader() const { return ends[0]; }
  int writer() const { return ends[1]; }
  int ends[2];
};

std::string readAll(int fd) {
  std::string text;
  char block[4096];
  for (ssize_t n = read(fd, block, sizeof block); n > 0; n = read(fd, block, sizeof block)) {
    text.append(block, static_cast<std::size_t>(n));
  }
  return text;
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

TEST_P(JsonExport, WritesAllSnapshotsAsOneDocument) {
  run([] {
    auto const root = schedulerRootBrelo();
    auto const task = std::make_shared<IdleTask>(root, TaskPriority::normal, "one");
    Pipe pipe, empty;
    int done = 0;
    bool closedBefore = false;
    root->snapshotRenderJsonAsync(
        pipe.writer(),
        {root->snapshot("a", true, false, false, 0), root->snapshot("b", true, false, false, 1),
         root->snapshot("c", true, false, false, 2)},
        [&] {
          ++done;
          closedBefore = !isOpen(pipe.writer());
        });
    EXPECT_NE(fcntl(pipe.writer(), F_GETFL) & O_NONBLOCK, 0);
    root->snapshotRenderJsonAsync(empty.writer(), {}, [&] { ++done; });
    while (done < 2)
      Platform::doEventLoopInWaitfor(0.01);
    EXPECT_TRUE(closedBefore);
    std::string const text = readAll(pipe.reader());
    auto const document = nlohmann::ordered_json::parse(text);
    std::string order;
    for (auto const& [name, scheduler] : document["schedulers"].items())
      order += name;
    EXPECT_EQ(order, "abc");
    EXPECT_EQ(readAll(empty.reader()), R"({"schedulers":{}})");

    TaskStat const render = root->completedTaskStatForTest("TaskSchedulerRenderJson");
    EXPECT_EQ(render.taskCompletedCount, 2U);
    EXPECT_EQ(render.taskWorkCountTotal, 3U);
    TaskStat const write = root->completedTaskStatForTest("TaskSchedulerRenderJson:FdWrite:write");
    EXPECT_EQ(write.taskWorkCountTotal, text.size() + 17);
    EXPECT_GE(write.taskRunCount, 5U);
  });
}

TEST_P(JsonExport, WaitsForASlowReaderAndResumesWhatIsInterrupted) {
  run([] {
    auto const root = schedulerRootBrelo();
    std::vector<std::shared_ptr<IdleTask>> tasks;
    for (int i = 0; i < 600; ++i) {
      tasks.push_back(std::make_shared<IdleTask>(root, TaskPriority::low, std::to_string(i)));
    }
    Pipe pipe;
    fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    std::string const expected = root->statsRenderJsonToString(true, false, false);
    bool done = false;
    BreloTest::TraceCapture capture("TaskScheduler");
    root->snapshotRenderJsonAsync(
        pipe.writer(),
        {root->snapshot("", true, false, false, TaskSchedulerSnapshot::displayOrderUnset)},
        [&] { done = true; });
    BreloTest::FaultInjection const faults({{"write", {EINTR, EAGAIN, 0, EINTR, 0, 0, EINTR}}});
    root->taskTestYieldRatioIs(2);
    std::string const writer =
        "TaskSchedulerRenderJson-fd:" + std::to_string(pipe.writer()) + ":FdWrite:write";
    std::string text;
    fcntl(pipe.reader(), F_SETFL, O_NONBLOCK);
    while (!done) {
      Platform::doEventLoopInWaitfor(0.0);
      TaskStat const write = root->taskStatForTest(writer);
      if (write.taskWorkPending != 0) {  // of the first chunk: the second one is "}}"
        ASSERT_EQ(write.taskWorkCountTotal + write.taskWorkPending, expected.size() - 2);
      }
      char block[1000];
      ssize_t const n = read(pipe.reader(), block, sizeof block);
      if (n > 0) text.append(block, static_cast<std::size_t>(n));
    }
    text += readAll(pipe.reader());
    EXPECT_GT(text.size(), 100'000U);
    EXPECT_EQ(text, expected);
    EXPECT_TRUE(faults.left().empty());
    std::string const traces = capture.take();
    EXPECT_THAT(traces, ContainsRegex("at offset [1-9][0-9]* of .* got Interrupted system"));
    EXPECT_THAT(traces, ContainsRegex("wrote [1-9][0-9]* bytes of [0-9]+ remaining yielding"));
    TaskStat const write = root->completedTaskStatForTest("TaskSchedulerRenderJson:FdWrite:write");
    EXPECT_EQ(write.taskWorkCountTotal, text.size());
  });
}

/// A TCP connection of this process with itself.
std::array<int, 2> connection() {
  int const listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto const generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(listener, generic, size) | listen(listener, 1), 0);
  EXPECT_EQ(getsockname(listener, generic, &size), 0);
  int const client = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(client, generic, size), 0);
  int const server = accept(listener, nullptr, nullptr);
  close(listener);
  return {client, server};
}

TEST_P(JsonExport, EndsQuietlyWithoutItsReader) {
  run([] {
    auto const root = schedulerRootBrelo();
    int done = 0;
    auto const frozen = [&] { return root->snapshot("", true, false, false, 0); };
    int gone[2];
    ASSERT_EQ(pipe(gone), 0);
    close(gone[0]);
    root->snapshotRenderJsonAsync(gone[1], {frozen(), frozen()}, [&] { ++done; });

    // A reader that goes away amid a chunk.
    auto const large = std::make_shared<IdleTask>(root, TaskPriority::low, std::string(9000, 'n'));
    int half[2];
    ASSERT_EQ(pipe2(half, O_NONBLOCK), 0);
    fcntl(half[1], F_SETPIPE_SZ, 4096);
    root->snapshotRenderJsonAsync(half[1], {frozen(), frozen()}, [&] { ++done; });
    char first;
    while (read(half[0], &first, 1) != 1)
      Platform::doEventLoopInWaitfor(0.0);
    close(half[0]);

    // A reader that closes with input unread: the write after it fails with ECONNRESET.
    auto const [client, server] = connection();
    BreloTest::TraceCapture capture("TaskScheduler");
    root->snapshotRenderJsonAsync(server, {frozen(), frozen()}, [&] { ++done; });
    while (recv(client, &first, 1, MSG_PEEK | MSG_DONTWAIT) != 1)
      Platform::doEventLoopInWaitfor(0.0);
    close(client);
    while (done < 3)
      Platform::doEventLoopInWaitfor(0.01);
    EXPECT_THAT(capture.take(), HasSubstr("failed Connection reset by peer"));

    // A descriptor that somebody closes between two writes.
    int lost[2];
    ASSERT_EQ(pipe(lost), 0);
    root->snapshotRenderJsonAsync(lost[1], {frozen(), frozen()}, [&] { ++done; });
    close(lost[0]);
    close(lost[1]);

    // A file, which cannot be polled.
    char name[] = "/tmp/brelo-export-XXXXXX";
    int const file = mkstemp(name);
    root->snapshotRenderJsonAsync(file, {frozen()}, [&] { ++done; });
    while (done < 5)
      Platform::doEventLoopInWaitfor(0.01);
    EXPECT_FALSE(isOpen(gone[1]) || isOpen(half[1]) || isOpen(server));
    int const reader = open(name, O_RDONLY);
    EXPECT_NO_THROW(json::parse(readAll(reader)));
    close(reader);
    unlink(name);
  });
}

TEST_P(JsonExport, EndsTheProcessWhereAWriteFailsForAnotherReason) {
  run([] {
    auto const root = schedulerRootBrelo();
    Pipe pipe;
    root->snapshotRenderJsonAsync(pipe.writer(), root->snapshot("", true, false, false, 0));
    EXPECT_DEATH(
        {
          BreloTest::FaultInjection const faults({{"write", {EIO}}});
          Platform::doEventLoopInWaitfor(0.1);
          Platform::doEventLoopInWaitfor(0.1);
        },
        "Write to fd [0-9]+ failed Input/output error\\(5\\)");
    Platform::doEventLoopInWaitfor(0.1);
  });
}

TEST_P(JsonExport, TakesThePriorityOfAGroupThatEnforcesOne) {
  run([] {
    auto const root = schedulerRootBrelo();
    // Kept in reach: a scheduler whose statistics were reset in the background is never destroyed.
    static auto* const kept = new std::vector<std::shared_ptr<TaskGroup>>;
    auto const group = TaskGroup::TaskGroupIs("strict", TaskPriority::high, true, root);
    kept->push_back(group);
    Pipe pipe;
    bool done = false;
    group->snapshotRenderJsonAsync(pipe.writer(), {group->snapshot("", true, false, true, 0)},
                                   [&] { done = true; });
    group->resetStats();
    while (!done)
      Platform::doEventLoopInWaitfor(0.01);
    EXPECT_FALSE(json::parse(readAll(pipe.reader()))["schedulers"]["strict"].contains("history"));
  });
}

}  // namespace
