#include "BreloObserve/StatsServer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Exception.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTask.h"
#include "observe/support/StatsClient.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"

namespace BreloObserve {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class StatsServerTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StatsServerTest);

/// A root with a server, and tasks to be seen in its documents.
struct Served {
  explicit Served(StatsServerOptions const& options = {}) : server(root, folder.path, options) {}

  void addTasks(int count) {
    for (int i = 0; i < count; ++i)
      tasks.emplace_back(root, Brelo::TaskPriority::normal, "task" + std::to_string(i), [] {});
  }

  SocketFolder const folder;
  std::shared_ptr<Brelo::TaskSchedulerRoot> const root =
      Brelo::schedulerRootBreloNonShared("served");
  std::vector<BreloDaemon::FunctionTask> tasks;
  StatsServer server;
};

bool isReport(std::string const& text) {
  auto const document = nlohmann::json::parse(text, nullptr, false);
  return document.is_object() && document["schedulers"].contains("served");
}

TEST_P(StatsServerTest, AnswersEveryRequestInOrder) {
  run([] {
    Served served;
    served.addTasks(3);
    StatsClient client(served.folder.path);
    auto const hello = client.ask("hello");
    EXPECT_EQ(hello["document"], "hello");
    EXPECT_EQ(hello["process"]["name"], "served");
    EXPECT_GE(hello["tasks"], 3);
    EXPECT_EQ(hello["history_capacity"], 100);

    client.write("pending\r\n\n  history  limit=1 \nexceptions\nstalls\n");
    EXPECT_THAT(client.readLine(), HasSubstr("\"pending\":["));
    EXPECT_EQ(nlohmann::json::parse(client.readLine())["events"].size(), 1);
    EXPECT_EQ(nlohmann::json::parse(client.readLine())["document"], "exceptions");
    client.readLine();

    client.write("report text\n");
    EXPECT_THAT(client.readUntil("\n\n\n"), HasSubstr("task2"));
    client.write("nothing such\nreport");
    client.shutdownWrite();  // the end of the input ends the line, too
    EXPECT_THAT(client.readLine(), StartsWith("error: there is no request \"nothing\""));
    EXPECT_TRUE(isReport(client.readAll()));

    StatsClient framed(served.folder.path);
    EXPECT_EQ(framed.askLine("framed"), "framed 1\n");
    EXPECT_EQ(nlohmann::json::parse(framed.askFramed("hello"))["document"], "hello");
    EXPECT_TRUE(isReport(framed.askFramed("report")));
    EXPECT_EQ(framed.askFramed("framed"), "framed 1\n");
    EXPECT_THAT(framed.askFramed("reprot"), StartsWith("!there is no request \"reprot\""));
  });
}

}  // namespace
}  // namespace BreloObserve
