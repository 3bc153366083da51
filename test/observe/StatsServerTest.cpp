#include "BreloObserve/StatsServer.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
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
#include "support/ChildProcess.h"
#include "support/FailingMemory.h"

namespace BreloObserve {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

Brelo::ModuleTrace const trace("StatsServerTest");

class StatsServerTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StatsServerTest);

/// A root with a server, and tasks to be seen in its documents.
struct Served {
  explicit Served(StatsServerOptions const& options = {}) : server(root, folder.path, options) {
    ::signal(SIGPIPE, SIG_IGN);
  }

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

/// What has been cleared is held for good, by the reset of its groups.
void keep(std::shared_ptr<Brelo::TaskSchedulerRoot> const& root) {
  static auto& kept = *new std::vector<std::shared_ptr<Brelo::TaskSchedulerRoot>>;
  kept.push_back(root);
}

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
    EXPECT_EQ(hello["monitor"], true);
    EXPECT_EQ(hello["stalls"], true);
    EXPECT_EQ(client.ask("stalls")["caught"], 0);
    served.tasks[1].schedule();
    loopABit();
    EXPECT_EQ(client.ask("monitor group=served top=1 sort=runs")["names"].size(), 1);
    EXPECT_TRUE(loopUntil([&] {  // which may have to leave out some for want of time
      auto const names = client.ask("monitor group=\"served\" sort=name histograms")["names"];
      return std::any_of(names.begin(), names.end(), [](auto const& each) {
        return each["name"] == "task1" && each["run_histogram_ns"].size() == 1;
      });
    }));
    EXPECT_EQ(client.ask("monitor group=\"no such\"")["names"].size(), 0);
    EXPECT_EQ(client.ask("clear")["document"], "hello");
    keep(served.root);
    EXPECT_EQ(client.ask("monitor")["window"]["cleared_count"], 1);

    EXPECT_TRUE(isReport(client.askFramed("report")));
    EXPECT_EQ(client.askFramed("framed"), "framed 1\n");
    EXPECT_THAT(client.askFramed("reprot"), StartsWith("!there is no request \"reprot\""));

    StatsClient shell(served.folder.path);
    shell.write("pending\r\n\n  history  limit=1 \nexceptions\n");
    EXPECT_THAT(shell.readLine(), HasSubstr("\"pending\":["));
    EXPECT_EQ(nlohmann::json::parse(shell.readLine())["events"].size(), 1);
    EXPECT_EQ(nlohmann::json::parse(shell.readLine())["document"], "exceptions");
    shell.write("report text\n");
    EXPECT_THAT(shell.readUntil("\n\n\n"), HasSubstr("task2"));
    shell.write("nothing such\nreport");
    shell.shutdownWrite();  // the end of the input ends the line, too
    EXPECT_THAT(shell.readLine(), StartsWith("error: there is no request \"nothing\""));
    EXPECT_TRUE(isReport(shell.readAll()));
  });
}

TEST_P(StatsServerTest, SaysWhatIsWrongInOnePrintableLine) {
  run([] {
    Served served;
    StatsClient client(served.folder.path);
    for (std::string const request :
         {"monitor top=x", "monitor sort=beauty", "history since=-1",
          "history since=99999999999999999999", "history capacity=1000001", "history limit",
          "report text=1", "exceptions maybe", "hello you", "monitor group=\"", "monitor sort=",
          "\x1b[2J\x80\xff\x01", "trace A\x01", "trace A/77", "HELLO", "=", "+17"}) {
      std::string const answer = client.askLine(request);
      EXPECT_THAT(answer, StartsWith("error: ")) << request;
      for (char const c : answer.substr(0, answer.size() - 1))
        EXPECT_TRUE(c >= ' ' && c <= '~') << request;
    }
    EXPECT_THAT(client.askLine(std::string(1000, 'x')), HasSubstr("xxx...\", see"));
    client.write(std::string(1001, 'x'));
    EXPECT_EQ(client.readAll(), "error: the line is too long\n");
    EXPECT_TRUE(loopUntil([&] { return served.server.clients() == 0; }));

    StatsClient flood(served.folder.path);
    flood.write(std::string(1 << 20, 'x'));  // all of it is on its way before the answer is
    EXPECT_EQ(flood.readAll(), "error: the line is too long\n");
  });
}

TEST_P(StatsServerTest, GivesTheHistoryInPartsWithoutGaps) {
  run([] {
    Served served;
    served.addTasks(1);
    served.root->historyEntryCountIs(90);
    StatsClient client(served.folder.path);
    std::uint64_t next = client.ask("history")["recorded"].get<std::uint64_t>() + 1;
    std::size_t seen = 0;
    for (int i = 0; i < 20; ++i) {
      served.tasks[0].schedule();
      for (bool more = true; more;) {
        auto const part = client.ask("history limit=30 since=" + std::to_string(next));
        ASSERT_EQ(part["first"], next);
        ASSERT_EQ(part["lost"], 0);
        for (auto const& event : part["events"])
          seen += event[1] == "run start" && event[2] == "N task0";
        next += part["events"].size();
        more = part["events"].size() == 30;
      }
    }
    EXPECT_EQ(seen, 20);

    for (int i = 0; i < 40; ++i)
      client.ask("hello");
    auto const late = client.ask("history since=1");
    EXPECT_EQ(late["lost"], late["first"].get<int>() - 1);
    EXPECT_EQ(late["events"].size(), 90);
    EXPECT_EQ(late["first"].get<std::uint64_t>() + 89, late["recorded"]);
    auto const future = client.ask("history since=1000000");
    EXPECT_EQ(future["events"].size(), 0);
    EXPECT_LT(future["first"], 10000);
  });
}

TEST_P(StatsServerTest, KeepsALongerHistoryForAsLongAsSomebodyWantsIt) {
  run([] {
    Served served;
    StatsClient first(served.folder.path);
    std::optional<StatsClient> second(served.folder.path);
    EXPECT_EQ(first.ask("history capacity=500")["capacity"], 500);
    EXPECT_EQ(second->ask("history capacity=5000")["capacity"], 5000);
    EXPECT_EQ(first.ask("history capacity=10")["capacity"], 5000);
    EXPECT_EQ(first.ask("history capacity=700")["capacity"], 5000);
    second.reset();
    EXPECT_TRUE(loopUntil([&] { return served.root->historyEntryCount() == 700; }));
    served.root->historyEntryCountIs(900);  // by the daemon itself
    first.close();
    EXPECT_TRUE(loopUntil([&] { return served.server.clients() == 0; }));
    EXPECT_EQ(served.root->historyEntryCount(), 900);
    {
      StatsServer other(served.root, served.folder.path + "2");
      StatsClient third(served.folder.path + "2");
      EXPECT_EQ(third.ask("history capacity=1000")["capacity"], 1000);
    }
    EXPECT_EQ(served.root->historyEntryCount(), 900);
  });
}

TEST_P(StatsServerTest, ShowsExceptionsAndTraces) {
  run([] {
    Served served;
    StatsClient client(served.folder.path);
    EXPECT_EQ(client.ask("exceptions on")["enabled"], true);
    Brelo::BacktraceTracker::backtraceIs("went\nwrong \xff");
    Brelo::BacktraceTracker::backtraceIs("then again");
    auto const exceptions = client.ask("exceptions off");
    EXPECT_EQ(exceptions["enabled"], false);
    ASSERT_EQ(exceptions["exceptions"].size(), 2);
    EXPECT_EQ(exceptions["exceptions"][0]["message"], "then again");
    EXPECT_EQ(exceptions["exceptions"][1]["message"], "went\nwrong \xEF\xBF\xBD");
    EXPECT_GT(exceptions["exceptions"][0]["backtrace"].size(), 3);
    Brelo::BacktraceTracker::clear();

    ::unsetenv("TRACE");
    Brelo::Platform::setupBreloDebug("");
    EXPECT_EQ(client.ask("trace StatsServerTest/3+4, Other*")["trace"],
              "StatsServerTest/3-4,Other*");
    EXPECT_TRUE(trace.enabled(3));
    EXPECT_THAT(client.askLine("trace -StatsServerTest, A/99"), HasSubstr("or not all of it"));
    EXPECT_FALSE(trace.enabled(3));
    std::string answer;
    for (int i = 0; i < 1000 && answer.find('!') == answer.npos; ++i)
      answer = client.askFramed("trace Other" + std::string(100, 'x'));
    EXPECT_THAT(answer, HasSubstr("restart"));

    StatsServerOptions bare;
    bare.traceChanges = false;
    bare.makesMonitor = false;
    bare.makesStallDetector = false;
    Served other(bare);
    StatsClient reader(other.folder.path);
    EXPECT_EQ(reader.ask("hello")["monitor"], false);
    EXPECT_EQ(reader.askLine("monitor"), "!this daemon has no monitor\n");
    EXPECT_EQ(reader.askLine("stalls"), "!this daemon has no stall detector\n");
    EXPECT_THAT(reader.askLine("trace X"), HasSubstr("does not let clients"));
    EXPECT_EQ(reader.ask("trace")["document"], "trace");
  });
}

TEST_P(StatsServerTest, HoldsLittleForClientsThatDoNotReadAndDropsThem) {
  run([] {
    StatsServerOptions options;
    options.sendLimit = 200ms;
    Served served(options);
    served.addTasks(500);
    loopABit();
    std::size_t const before = liveBytes();
    std::vector<StatsClient> flooding;
    for (int i = 0; i < 4; ++i)
      flooding.emplace_back(served.folder.path);
    StatsClient trickling(served.folder.path);
    trickling.write("report\nreport\nhello\n");
    StatsClient busy(served.folder.path);
    std::string const requests = "history\nreport text\nreport\nhello\n";
    std::size_t mostHeld = 0;
    std::string trickled;
    double const start = Brelo::time();
    EXPECT_TRUE(loopUntil([&] {
      for (StatsClient& client : flooding)
        client.write(requests);
      mostHeld = std::max(mostHeld, liveBytes() - before);
      trickled += trickling.read(20'000);
      busy.ask("hello");
      return served.server.clients() == 2;
    }));
    EXPECT_GE(Brelo::time() - start, 0.2);
    EXPECT_LT(mostHeld, 8u << 20);
    EXPECT_TRUE(loopUntil([&] {  // slow is not dead
      trickled += trickling.read();
      return trickled.find("\"document\":\"hello\"") != trickled.npos || trickling.ended();
    }));
    EXPECT_GT(trickled.size(), 300'000);
    EXPECT_FALSE(trickling.ended());
    loopABit();  // in which the exports to those that were dropped end
  });
}

TEST_P(StatsServerTest, ServesSoManyAndTellsTheNext) {
  run([] {
    StatsServerOptions options;
    options.clientsMax = 3;
    options.sendLimit = 20ms;
    Served served(options);
    std::vector<StatsClient> clients;
    for (int i = 0; i < 3; ++i) {
      clients.emplace_back(served.folder.path);
      EXPECT_EQ(clients.back().ask("hello")["document"], "hello");
    }
    StatsClient polite(served.folder.path);
    polite.write("hello\n");
    EXPECT_EQ(polite.readAll(), "error: too many clients\n");
    // Those that stay where they are not wanted go as well, and those behind them get their turn.
    std::vector<StatsClient> stubborn;
    for (int i = 0; i < 9; ++i)
      stubborn.emplace_back(served.folder.path);
    for (StatsClient& client : stubborn)
      EXPECT_EQ(client.readLine(), "error: too many clients\n");
    EXPECT_EQ(served.server.clients(), 3);
    clients.pop_back();
    EXPECT_TRUE(loopUntil([&] { return served.server.clients() == 2; }));
    EXPECT_TRUE(loopUntil(
        [&] { return StatsClient(served.folder.path).ask("hello")["document"] == "hello"; }));
  });
}

TEST_P(StatsServerTest, GivesThePlaceOfOneThatIsSilentToOneThatAsks) {
  run([] {
    StatsServerOptions options;
    options.clientsMax = 2;
    options.silentLimit = 100ms;
    Served served(options);
    StatsClient silent(served.folder.path);
    StatsClient asks(served.folder.path);
    double const start = Brelo::time();
    EXPECT_TRUE(loopUntil([&] {
      asks.ask("hello");
      return Brelo::time() > start + 0.15;
    }));
    StatsClient next(served.folder.path);
    EXPECT_EQ(next.ask("hello")["document"], "hello");
    EXPECT_EQ(silent.readLine(), "error: silent for too long, and others ask\n");
    EXPECT_EQ(asks.ask("hello")["document"], "hello");
    StatsClient oneMore(served.folder.path);
    EXPECT_EQ(oneMore.readLine(), "error: too many clients\n");
    EXPECT_EQ(served.server.clients(), 2);
  });
}

TEST_P(StatsServerTest, SurvivesClientsAndItselfGoingAmidAReport) {
  run([] {
    auto served = std::make_unique<Served>();
    served->addTasks(5000);
    for (int i = 0; i < 20; ++i) {  // at every stage
      StatsClient client(served->folder.path);
      client.write("report\n");
      for (int passes = 0; passes < i; ++passes)
        Brelo::Platform::doEventLoopInWaitfor(0);
      client.read(10'000);
    }
    StatsClient last(served->folder.path);
    EXPECT_TRUE(loopUntil([&] { return served->server.clients() == 1; }));
    EXPECT_EQ(last.ask("hello")["document"], "hello");
    last.write("report\n");
    std::string got;
    EXPECT_TRUE(loopUntil([&] { return !(got += last.read(1000)).empty(); }));
    served.reset();
    last.readAll();
    loopABit();  // the export finds out
  });
}

TEST_P(StatsServerTest, EndsInOrderWithItsDaemon) {
  run([] {
    SocketFolder const folder;
    std::vector<StatsClient> clients;
    BreloDaemon::Daemon daemon("ending");
    StatsServerOptions options;
    options.sendLimit = 50ms;
    StatsServer server(daemon.scheduler(), folder.path, options);
    std::vector<BreloDaemon::FunctionTask> tasks;
    for (int i = 0; i < 5000; ++i)
      tasks.emplace_back(daemon.scheduler(), Brelo::TaskPriority::normal, "some", [] {});
    for (int i = 0; i < 4; ++i)
      clients.emplace_back(folder.path);
    EXPECT_EQ(clients[0].ask("clear")["document"], "hello");
    keep(daemon.scheduler());
    EXPECT_EQ(clients[1].askLine("framed"), "framed 1\n");
    clients[1].write("report\n");  // which nobody reads
    clients[2].write("report\n");
    EXPECT_TRUE(
        loopUntil([&] { return !clients[1].read(1).empty() && !clients[2].read(1).empty(); }));
    double const start = Brelo::time();
    daemon.stop();
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_LT(Brelo::time() - start, 1);
    EXPECT_FALSE(std::filesystem::exists(folder.path));
    EXPECT_EQ(clients[0].readAll(), "");
    EXPECT_EQ(clients[3].readAll(), "");
  });
}

TEST_P(StatsServerTest, ItsSocketHasTheRightsAskedForAndNobodyElsesPath) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    SocketFolder const folder;
    struct stat status;
    StatsServerOptions options;
    options.group = ::getgid();
    options.unixMode = 0660;
    StatsServer const server(root, "unix:" + folder.path, options);
    ASSERT_EQ(::stat(folder.path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660);
    EXPECT_EQ(status.st_gid, ::getgid());
    auto const isRefused = [&](std::string const& address) {
      try {
        StatsServer const other(root, address, options);
        return false;
      } catch (std::system_error const& error) {
        return std::string(error.what()).find(address) != std::string::npos;
      }
    };
    EXPECT_TRUE(isRefused(folder.path));
    EXPECT_TRUE(isRefused("127.0.0.1:0"));
    EXPECT_TRUE(isRefused("unix:@brelo-stats"));
    EXPECT_TRUE(isRefused("stats.sock"));
    EXPECT_TRUE(isRefused(""));
    EXPECT_TRUE(isRefused("/nowhere/socket"));
    if (::geteuid() == 0) {
      options.owner = 12345;
      StatsServer const given(root, folder.path + "2", options);
      ASSERT_EQ(::stat((folder.path + "2").c_str(), &status), 0);
      EXPECT_EQ(status.st_uid, 12345);
    }
    std::filesystem::remove(folder.path);
    std::optional<StatsServer> again(std::in_place, root, folder.path);
    EXPECT_TRUE(passesInChild([&] { again.reset(); }));  // whose file it is not
    ASSERT_EQ(::stat(folder.path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600);
    EXPECT_EQ(StatsClient(folder.path).ask("hello")["process"]["pid"], ::getpid());
  });
}

TEST_P(StatsServerTest, SurvivesWhereMemoryRunsOut) {
  run([] {
    Served served;
    served.root->taskExceptionHandlerIs([](Brelo::_TaskBase&) { return true; });
    served.addTasks(3);
    for (std::string const request : {"report", "monitor", "history capacity=1000", "report text",
                                      "hello", "exceptions", "pending"}) {
      bool failed = true;
      for (unsigned long nth = 1; failed; ++nth) {
        StatsClient client(served.folder.path);
        // Accepting pauses for a while without memory: that is tried with one request.
        EXPECT_TRUE(request == "hello" || client.askLine("framed") == "framed 1\n");
        client.write("framed\n" + request + "\n");
        client.shutdownWrite();
        std::string answer(1 << 18, ' ');
        std::size_t size = 0;
        {
          FailingMemory const failing(nth);
          for (double const start = Brelo::time(); Brelo::time() < start + 10;) {
            try {
              Brelo::Platform::doEventLoopInWaitfor(0);
            } catch (std::bad_alloc const&) {
            }
            ssize_t const more =
                ::recv(client.fd(), &answer[size], answer.size() - size, MSG_DONTWAIT);
            if (more == 0 || (more < 0 && errno != EAGAIN)) break;
            if (more > 0) size += static_cast<std::size_t>(more);
          }
          failed = failing.failed();
        }
        answer.resize(size);
        EXPECT_TRUE(failed || testing::Matches(EndsWith(".\n"))(answer)) << request;
        ASSERT_LT(nth, 2000);
      }
    }
    EXPECT_TRUE(loopUntil([&] { return served.server.clients() == 0; }));
    EXPECT_EQ(StatsClient(served.folder.path).ask("hello")["document"], "hello");
  });
}

}  // namespace
}  // namespace BreloObserve
