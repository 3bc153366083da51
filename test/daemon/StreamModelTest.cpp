#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "daemon/support/StreamPair.h"
#include "support/Backend.h"

// Whatever the two sides of a connection do, in whatever order: bytes arrive whole and in their
// order, nothing is called after the end, and the end comes once.

namespace BreloDaemon {
namespace {

using namespace BreloTest;

/// The bytes of a direction from a place on, which tell it.
std::string_view bytesFrom(std::size_t place, std::size_t size) {
  constexpr std::size_t period = 1'000'003;
  static std::string const bytes = [] {
    std::string made(4 * period, '\0');
    std::mt19937 random(1);
    for (std::size_t i = 0; i < made.size(); ++i)
      made[i] = i < period ? static_cast<char>(random()) : made[i - period];
    return made;
  }();
  return std::string_view(bytes).substr(place % period, size);
}

class Connection {
 public:
  Connection(std::mt19937& random, std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
      : random_(random), pair_(SOCK_STREAM, scheduler), halfOpen_(below(3) == 0) {
    receive();
    pair_.stream->halfOpenIs(halfOpen_);
    pair_.stream->onDrained([this] { act(); });
    pair_.stream->onReceiveEnd([this] { act(); });
  }

  /// Something from outside, on either side.
  void operate() {
    switch (below(20)) {
      case 0:
        return below(4) == 0 ? peerEndsOutput() : void();
      case 1:
        return below(4) == 0 ? peerCloses() : void();
      case 2:
      case 3:
      case 4:
        return act();
      case 5:
      case 6:
        return send();
      case 7:
      case 8:
      case 9:
        return peerReads(size());
      default:
        if (peerSends_) peerSent_ += pair_.peer.write(bytesFrom(peerSent_, size()));
    }
  }

  /// Nothing holds the bytes back any more.
  void calm() {
    calm_ = true;
    if (!lives()) return;
    pair_.stream->readingPausedIs(false);
    receive();
  }

  /// After that: all that is to arrive has arrived.
  bool settled() {
    peerReads(1 << 20);
    if (!pair_.stream) return true;
    bool const allGot = peerGone_ || peerGot_ == sent_;
    if (pair_.ends > 0) {
      EXPECT_TRUE(pair_.end != StreamEnd::failed || peerGone_);
      bool const inOrder = pair_.end == StreamEnd::closed || pair_.end == StreamEnd::peerClosed;
      return !inOrder || allGot;
    }
    if (closing_ || (!peerSends_ && !halfOpen_)) return false;
    return peerGone_ || (allGot && consumed_ == peerSent_);
  }
  bool over() const {
    EXPECT_LE(pair_.ends, 1);
    return !pair_.stream || pair_.ends > 0;
  }

 private:
  int below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
  std::size_t size() { return std::size_t{1} << below(18); }
  bool lives() const { return pair_.stream && !pair_.stream->ended(); }

  void receive() {
    pair_.stream->receive([this](std::string_view bytes) { return take(bytes); });
  }

  std::size_t take(std::string_view bytes) {
    EXPECT_EQ(pair_.ends, 0);
    EXPECT_TRUE(bytes == bytesFrom(consumed_, bytes.size()));
    EXPECT_GE(bytes.size(), offered_);
    auto const all = static_cast<int>(bytes.size());
    auto const consumed = static_cast<std::size_t>(calm_ || below(2) == 0 ? all : below(all + 1));
    consumed_ += consumed;
    offered_ = bytes.size() - consumed;
    act();
    return consumed;
  }

  /// What either a callback or anybody else may do to the stream.
  void act() {
    if (!lives() || calm_) return;
    switch (below(40)) {
      case 0:
        return pair_.stream->close(), void(closing_ = true);
      case 1:
        return below(3) == 0 ? pair_.stream->abort() : void();
      case 2:
        return below(3) == 0 ? pair_.stream->shutdownSend() : void();
      case 3:
        return below(3) == 0 ? pair_.stream.reset() : void();
      case 4:
        return below(3) == 0 ? throwLater() : void();
      case 5:
      case 6:
        return pair_.stream->readingPausedIs(true);
      case 7:
      case 8:
      case 9:
        return pair_.stream->readingPausedIs(false);
      case 10:
        return pair_.stream->waterMarksIs(static_cast<std::size_t>(below(9'000)),
                                          std::size_t{10'000} << below(6));
      case 11:
        return receive();
      default:
        return below(2) == 0 ? send() : void();
    }
  }

  void throwLater() {
    pair_.stream->receive(
        [](std::string_view) -> std::size_t { throw std::runtime_error("of a callback"); });
  }

  void send() {
    if (!lives()) return;
    auto const bytes = bytesFrom(sent_, size());
    auto const middle = static_cast<std::size_t>(below(static_cast<int>(bytes.size())));
    if (pair_.stream->send({bytes.substr(0, middle), bytes.substr(middle)})) sent_ += bytes.size();
  }

  void peerEndsOutput() {
    pair_.peer.shutdownWrite();
    peerSends_ = false;
  }

  void peerCloses() {
    pair_.peer.close();
    peerGone_ = true;
    peerSends_ = false;
  }

  void peerReads(std::size_t most) {
    std::string const bytes = pair_.peer.read(most);
    EXPECT_TRUE(bytes == bytesFrom(peerGot_, bytes.size()));
    peerGot_ += bytes.size();
    EXPECT_LE(peerGot_, sent_);
  }

  std::mt19937& random_;
  StreamPair pair_;
  bool halfOpen_;
  std::size_t peerSent_ = 0;
  std::size_t consumed_ = 0;
  std::size_t offered_ = 0;  // and not consumed
  std::size_t sent_ = 0;
  std::size_t peerGot_ = 0;
  bool peerSends_ = true;
  bool peerGone_ = false;
  bool closing_ = false;
  bool calm_ = false;
};

class StreamModelTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StreamModelTest);

TEST_P(StreamModelTest, BytesArriveWholeAndInOrder) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    root->taskExceptionHandlerIs([](Brelo::_TaskBase&) { return true; });
    auto const group =
        Brelo::TaskGroup::TaskGroupIs("group", Brelo::TaskPriority::normal, false, root);
    for (unsigned seed = 0; seed < 30; ++seed) {
      SCOPED_TRACE(seed);
      std::mt19937 random(seed);
      std::vector<std::unique_ptr<Connection>> connections(8);
      for (int step = 0; step < 800 && !testing::Test::HasFailure(); ++step) {
        auto& each = connections[random() % connections.size()];
        if (!each || each->over()) {
          each = std::make_unique<Connection>(
              random, random() % 2 == 0 ? std::shared_ptr<Brelo::TaskScheduler>(group) : root);
        }
        each->operate();
        if (random() % 4 == 0) Brelo::Platform::doEventLoopInWaitfor(0);
      }
      for (auto const& each : connections)
        if (each) each->calm();
      EXPECT_TRUE(loopUntil([&] {
        return std::all_of(connections.begin(), connections.end(),
                           [](auto const& each) { return !each || each->settled(); });
      }));
      ASSERT_FALSE(testing::Test::HasFailure());
    }
  });
}

}  // namespace
}  // namespace BreloDaemon
