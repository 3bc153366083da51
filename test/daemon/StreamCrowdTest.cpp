#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "BreloDaemon/Listener.h"
#include "BreloDaemon/internal/SocketAddress.h"
#include "daemon/support/StreamPair.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"

// Thousands of clients that behave in no way that a server could wish for.

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;

class StreamCrowdTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StreamCrowdTest);

constexpr std::size_t ofEachKind = 2'000;

/// Small buffers in the kernel, so that thousands find room.
void smallBuffers(int fd) {
  int const size = 4096;
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

/// Sends whole lines back.
void echoLines(Stream& client) {
  smallBuffers(client.descriptor());
  client.receive([&client](std::string_view bytes) {
    auto const lines = bytes.substr(0, bytes.rfind('\n') + 1);
    client.send(lines);
    return lines.size();
  });
}

class Crowd {
 public:
  explicit Crowd(std::shared_ptr<Brelo::TaskScheduler> scheduler)
      : listener_(std::move(scheduler), "unix:@brelo-crowd-" + std::to_string(::getpid()),
                  [this](Stream& client) {
                    streams_.insert(&client);
                    client.onEnd([this, &client](StreamEnd reason, std::error_code) {
                      ++ends[reason];
                      streams_.erase(&client);
                    });
                    echoLines(client);
                  }) {}

  Peer newPeer() {
    auto const address = SocketAddress::parse(listener_.addresses()[0]);
    Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    smallBuffers(fd.get());
    while (::connect(fd.get(), address.get(), address.size()) != 0)
      Brelo::Platform::doEventLoopInWaitfor(0);  // the backlog is full
    return Peer(std::move(fd));
  }
  bool isServed(Peer& peer) {
    std::string got;
    return peer.write("polite\n") == 7 &&
           loopUntil([&] { return (got += peer.read(100)) == "polite\n"; });
  }
  bool untilLeft(std::size_t count) {
    return loopUntil([this, count] { return listener_.connections() == count; });
  }
  std::set<Stream*> const& streams() const { return streams_; }

  std::map<StreamEnd, std::size_t> ends;

 private:
  std::set<Stream*> streams_;
  Listener listener_;
};

TEST_P(StreamCrowdTest, CostsWhatIsPromisedAndEndsWithTheIdleLimit) {
  if (::sysconf(_SC_OPEN_MAX) < static_cast<long>(8 * ofEachKind + 200)) {
    GTEST_SKIP() << "for want of descriptors";
  }
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    Crowd crowd(root);
    Peer polite = crowd.newPeer();
    std::vector<Peer> floods;
    std::vector<Peer> trickles;
    std::vector<Peer> neverRead;
    std::string const flood(8'000, '\n');
    for (std::size_t i = 0; i < ofEachKind; ++i) {
      floods.push_back(crowd.newPeer());
      trickles.push_back(crowd.newPeer());
      neverRead.push_back(crowd.newPeer());
      Peer vanishes = crowd.newPeer();
      vanishes.write(i % 2 == 0 ? "half a line" : flood);
    }
    std::size_t flooded = 0;
    for (int round = 0; round < 6; ++round) {
      for (std::size_t i = 0; i < ofEachKind; ++i) {
        flooded += floods[i].write(flood);
        floods[i].read(16 << 10);
        trickles[i].write("t");
        for (int tries = 0; tries < 20 && neverRead[i].write(flood) > 0; ++tries) {
        }
      }
      EXPECT_TRUE(crowd.isServed(polite));
    }
    EXPECT_GT(flooded, ofEachKind * 6 * 1'000);
    EXPECT_TRUE(crowd.untilLeft(3 * ofEachKind + 1));
    EXPECT_EQ(crowd.ends[StreamEnd::peerClosed] + crowd.ends[StreamEnd::failed], ofEachKind);

    // Those that never read keep no more than the high mark and what came at once, and no time.
    for (Stream const* const each : crowd.streams())
      EXPECT_LE(each->unsent(), 2 * (64 << 10));
    loopABit();
    auto const runs = [&] {
      return root->queueStatsRoot().at(Brelo::TaskPriority::normal).totalRunCount;
    };
    auto const before = runs();
    loopABit();
    EXPECT_EQ(runs(), before);

    for (Peer& each : trickles) {
      each.write("\n");
      EXPECT_TRUE(loopUntil([&] { return each.read(100) == "tttttt\n"; }));
    }
    for (Stream* const each : crowd.streams())
      each->idleLimitIs(10ms);
    EXPECT_TRUE(crowd.untilLeft(0));
    EXPECT_EQ(crowd.ends[StreamEnd::idle], 3 * ofEachKind + 1);
  });
}

TEST_P(StreamCrowdTest, AnIdleStreamTakesWhatTheHeaderSays) {
  run([] {
    constexpr std::size_t count = 500;
    std::vector<Peer> peers(count);
    std::vector<std::shared_ptr<Stream>> streams(count);
    std::string const large(500'000, 'x');
    std::size_t const before = liveBytes();
    for (std::size_t i = 0; i < count; ++i) {
      int fds[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
      peers[i] = Peer(Descriptor(fds[1]));
      streams[i] = std::make_shared<Stream>(
          Brelo::schedulerRootBrelo(), Brelo::TaskPriority::normal, "idle", Descriptor(fds[0]));
      streams[i]->receive(
          [](std::string_view bytes) { return bytes.back() == '.' ? bytes.size() : 0; });
    }
    auto const each = [&] { return (liveBytes() - before) / count; };
    std::size_t const idle = each();
    EXPECT_LT(idle, 1'050);
    RecordProperty("bytes", static_cast<int>(idle));
    for (std::size_t i = 0; i < 20; ++i) {
      peers[i].write(large.substr(0, 1'000));
      EXPECT_TRUE(loopUntil([&] { return streams[i]->bytesReceived() == 1'000; }));
      streams[i]->send(large);
      peers[i].write(".");
      EXPECT_TRUE(loopUntil([&] { return peers[i].read().empty() && streams[i]->unsent() == 0; }));
    }
    EXPECT_LE(each(), idle + 2 * (64 << 10) / count + 20);  // what all share
  });
}

}  // namespace
}  // namespace BreloDaemon
