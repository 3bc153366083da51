#include "BreloDaemon/Connector.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Listener.h"
#include "BreloDaemon/Mailbox.h"
#include "daemon/support/StreamPair.h"
#include "support/Backend.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;

class ConnectorTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(ConnectorTest);

/// How an attempt has ended.
struct Attempt {
  Connector::Handler handler() {
    return [this](std::shared_ptr<Stream> made, std::error_code code) {
      ++calls;
      stream = std::move(made);
      error = code;
    };
  }
  bool untilCalled() {
    return loopUntil([this] { return calls > 0; });
  }

  int calls = 0;
  std::shared_ptr<Stream> stream;
  std::error_code error;
};

/// A socket of which connections get no answer, since its backlog is full.
class Hanging {
 public:
  Hanging() {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    fds_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(fds_[0].get(), plain, size), 0);
    EXPECT_EQ(::getsockname(fds_[0].get(), plain, &size), 0);
    EXPECT_EQ(::listen(fds_[0].get(), 0), 0);
    for (int i = 0; i < 4; ++i) {
      fds_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      ::connect(fds_.back().get(), plain, size);
    }
    text = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }

  std::string text;

 private:
  std::vector<Descriptor> fds_;
};

/// A port of the loopback address at which nobody listens.
std::string refusing() {
  return Listener(Brelo::schedulerRootBrelo(), "127.0.0.1:0", [](Stream&) {}).addresses()[0];
}

TEST_P(ConnectorTest, TriesAddressesInTurnAndNamesAmongThem) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    Listener listener(root, {"127.0.0.1:0", "unix:@brelo-connector-" + std::to_string(::getpid())},
                      [](Stream& client) { client.send("hello"); });
    Connector connector(root);
    Hanging const hanging;
    ConnectorOptions options;
    options.addressTimeLimit = 5ms;
    Connector impatient(root, options);
    std::string const port = std::to_string(listener.port());
    std::deque<Attempt> all(4);
    connector.connect({refusing(), "nonsense", listener.addresses()[0]}, all[0].handler());
    connector.connect("localhost:" + port, all[1].handler());
    connector.connect(listener.addresses()[1], all[2].handler());
    impatient.connect({hanging.text, listener.addresses()[0]}, all[3].handler());
    EXPECT_EQ(connector.pending(), 3);
    for (Attempt& each : all) {
      EXPECT_TRUE(each.untilCalled());
      ASSERT_NE(each.stream, nullptr) << each.error.message();
      std::string got;
      each.stream->receive([&](std::string_view bytes) {
        got += bytes;
        return bytes.size();
      });
      EXPECT_TRUE(loopUntil([&] { return got == "hello"; }));
    }
    EXPECT_EQ(all[0].stream->peerName(), listener.addresses()[0]);
    EXPECT_EQ(connector.pending(), 0);
  });
}

TEST_P(ConnectorTest, SaysWhyThereIsNoConnection) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    Hanging const hanging;
    ConnectorOptions options;
    options.timeLimit = 10ms;
    Connector impatient(root, options);
    Connector connector(root);
    std::deque<Attempt> all(6);
    impatient.connect(hanging.text, all[0].handler());
    connector.connect(refusing(), all[1].handler());
    connector.connect({"127.0.0.1", "[::1:7", ":7"}, all[2].handler());
    connector.connect("localhost:no-such-service", all[3].handler());
    connector.connect("unix:/nowhere/at/all", all[4].handler());
    connector.connect(std::vector<std::string>{}, all[5].handler());
    EXPECT_EQ(all[2].calls, 0);  // never from inside of an operation
    std::error_code const expected[] = {std::make_error_code(std::errc::timed_out),
                                        std::make_error_code(std::errc::connection_refused),
                                        std::make_error_code(std::errc::invalid_argument),
                                        {EAI_SERVICE, resolveCategory()},
                                        std::make_error_code(std::errc::no_such_file_or_directory),
                                        std::make_error_code(std::errc::invalid_argument)};
    for (int i = 0; i < 6; ++i) {
      EXPECT_TRUE(all[i].untilCalled());
      EXPECT_EQ(all[i].stream, nullptr);
      EXPECT_EQ(all[i].error.value(), expected[i].value()) << i << all[i].error.message();
      EXPECT_EQ(all[i].calls, 1);
    }
    EXPECT_FALSE(resolveCategory().message(EAI_SERVICE).empty());
  });
}

TEST_P(ConnectorTest, GivesUpWhereTheDaemonEnds) {
  run([] {
    Daemon daemon("test");
    Hanging const hanging;
    Connector connector(daemon.scheduler());
    Attempt outcome;
    connector.connect(hanging.text, outcome.handler());
    BreloTest::Timer timer([&] { daemon.stop(); });
    timer.control->setTimeout(0.01);
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.error, std::errc::operation_canceled);
  });
}

TEST_P(ConnectorTest, KeepsTheLoopOnlyWhileSomebodyWaits) {
  run([] {
    Connector connector(Brelo::schedulerRootBrelo());
    std::string const nobody = refusing();
    auto const before = Brelo::Platform::pendingCount();
    Attempt outcome;
    connector.connect("localhost" + nobody.substr(nobody.find(':')), outcome.handler());
    EXPECT_GT(Brelo::Platform::pendingCount(), before);
    EXPECT_TRUE(outcome.untilCalled());
    EXPECT_EQ(outcome.stream, nullptr);
    EXPECT_TRUE(loopUntil([&] { return Brelo::Platform::pendingCount() == before; }));
  });
}

TEST_P(ConnectorTest, CancelsByLettingGo) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    Hanging const hanging;
    {
      Mailbox const first(root, Brelo::TaskPriority::normal, "first");  // the loop gets its own
      loopABit();
    }
    unsigned const before = openDescriptors();
    Attempt outcome;
    for (int passes = 0; passes < 3; ++passes) {
      auto connector = std::make_unique<Connector>(root);
      connector->connect(hanging.text, outcome.handler());
      for (int i = 0; i < 9; ++i)
        connector->connect("localhost:1", outcome.handler());
      for (int i = 0; i < passes; ++i)
        Brelo::Platform::doEventLoopInWaitfor(0);
      connector.reset();
      loopABit();
    }
    EXPECT_EQ(outcome.calls, 0);
    auto connector = std::make_unique<Connector>(root);
    bool told = false;
    connector->connect(refusing(), [&](std::shared_ptr<Stream>, std::error_code) {
      connector.reset();
      told = true;
    });
    connector->connect(hanging.text, outcome.handler());
    EXPECT_TRUE(loopUntil([&] { return told; }));
    loopABit();
    EXPECT_EQ(outcome.calls, 0);
    EXPECT_TRUE(loopUntil([&] { return openDescriptors() == before; }));
  });
}

}  // namespace
}  // namespace BreloDaemon
