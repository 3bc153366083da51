#include "BreloDaemon/Stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "daemon/support/StreamPair.h"
#include "support/Backend.h"
#include "support/FaultInjection.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;

class StreamTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StreamTest);

/// Text whose bytes tell their place.
std::string pattern(std::size_t size, std::size_t from = 0) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    text[i] = static_cast<char>((from + i) * 31 >> 5);
  return text;
}

TEST_P(StreamTest, HandsOverWhatIsNotConsumedAgain) {
  run([] {
    StreamPair pair;
    std::string lines;
    std::string body;
    auto const takeBody = [&](std::string_view bytes) {
      body += bytes;
      return bytes.size();
    };
    pair.stream->receive([&](std::string_view bytes) {
      auto const end = bytes.find('\n');
      if (end == bytes.npos) return std::size_t{0};
      lines += bytes.substr(0, end + 1);
      if (lines.find("body") != lines.npos) pair.stream->receive(takeBody);
      return end + 1;
    });
    pair.peer.write("on");
    loopABit();
    EXPECT_EQ(lines, "");
    pair.peer.write("e\nbody\n12");
    EXPECT_TRUE(loopUntil([&] { return lines == "one\n"; }));  // that handler takes one at a time
    pair.peer.write("3");
    EXPECT_TRUE(loopUntil([&] { return body == "123"; }));
    EXPECT_EQ(lines, "one\nbody\n");
    EXPECT_EQ(pair.stream->bytesReceived(), 12);
  });
}

TEST_P(StreamTest, OffersAgainAfterAPauseAndEndsAtTheLimit) {
  run([] {
    StreamPair pair;
    std::string taken;
    pair.stream->receive([&](std::string_view bytes) {
      taken += bytes.front();
      pair.stream->readingPausedIs(true);
      return std::size_t{1};
    });
    pair.peer.write("abc");
    EXPECT_TRUE(loopUntil([&] { return taken == "a"; }));
    pair.peer.write("d");
    loopABit();
    EXPECT_EQ(taken, "a");
    for (char const* so : {"ab", "abc", "abcd"}) {
      pair.stream->readingPausedIs(false);
      EXPECT_TRUE(loopUntil([&] { return taken == so; })) << taken;
    }
    pair.stream->receiveLimitIs(3);
    pair.stream->receive([](std::string_view) { return std::size_t{0}; });
    pair.stream->readingPausedIs(false);
    pair.peer.write("12");
    loopABit();
    EXPECT_EQ(pair.ends, 0);
    pair.peer.write("3");
    EXPECT_TRUE(pair.untilEnd());
    EXPECT_EQ(pair.end, StreamEnd::receiveLimit);
  });
}

TEST_P(StreamTest, GathersTheSendsOfARun) {
  run([] {
    StreamPair pair(SOCK_SEQPACKET);  // in which a write is a packet
    std::string const large = pattern(20'000);
    pair.stream->receive([&](std::string_view bytes) {
      pair.stream->send("a");
      pair.stream->send({"b", "", "c"});
      EXPECT_EQ(pair.stream->unsent(), 3);
      if (bytes == "large") pair.stream->send(large);
      if (bytes == "large") pair.stream->send("d");
      return bytes.size();
    });
    auto const next = [&] {
      std::string packet;
      loopUntil([&] { return !(packet = pair.peer.read()).empty(); });
      return packet;
    };
    pair.peer.write("small");
    EXPECT_EQ(next(), "abc");
    pair.peer.write("large");
    EXPECT_EQ(next(), "abc" + large);
    EXPECT_EQ(next(), "d");
    pair.stream->send("outside");
    EXPECT_EQ(pair.peer.read(), "outside");
    EXPECT_EQ(pair.stream->bytesSent(), 2 * 3 + large.size() + 1 + 7);
    std::string const piece(500, 'p');
    std::vector<std::string_view> const many(100, piece);  // more than one call takes
    pair.stream->send(many.data(), many.size());
    EXPECT_EQ((next() + next()).size(), 100 * piece.size());
  });
}

TEST_P(StreamTest, KeepsWhatTheKernelDoesNotTakeAndStopsReadingMeanwhile) {
  run([] {
    StreamPair pair;
    pair.stream->waterMarksIs(10'000, 400'000);
    int drained = 0;
    pair.stream->onDrained([&] { ++drained; });
    std::string received;
    pair.stream->receive([&](std::string_view bytes) {
      received += bytes;
      return bytes.size();
    });
    std::string sent;
    while (pair.stream->unsent() < 400'000) {
      std::string const piece = pattern(1 + sent.size() % 70'000, sent.size());
      EXPECT_TRUE(pair.stream->send(piece));
      sent += piece;
    }
    pair.peer.write("kept back");
    loopABit();
    EXPECT_EQ(received + std::to_string(drained), "0");
    std::string got;
    EXPECT_TRUE(loopUntil([&] {
      got += pair.peer.read(50'000);
      EXPECT_TRUE(pair.stream->unsent() == 0 || drained == (pair.stream->unsent() <= 10'000));
      return got.size() >= sent.size();
    }));
    EXPECT_TRUE(got == sent);
    EXPECT_TRUE(loopUntil([&] { return received == "kept back"; }));
    EXPECT_EQ(drained, 1);
  });
}

TEST_P(StreamTest, OffersTheRestOnceTheOutputHasDrained) {
  run([] {
    StreamPair pair;
    std::string const answer = pattern(300'000);
    pair.stream->receive([&](std::string_view requests) {
      std::size_t done = 0;
      while (done < requests.size() && pair.stream->unsent() < 64 << 10) {
        pair.stream->send(answer);
        ++done;
      }
      return done;
    });
    pair.peer.write("12345");
    std::string got;
    EXPECT_TRUE(loopUntil([&] { return (got += pair.peer.read()).size() == 5 * answer.size(); }));
    EXPECT_EQ(pair.stream->unsent(), 0);
  });
}

TEST_P(StreamTest, DrainsForWhoSendsByThemselves) {
  run([] {
    StreamPair pair;
    std::size_t made = 0;
    auto const produce = [&] {
      while (made < 2'000'000 && pair.stream->unsent() < 64 << 10) {
        pair.stream->send(pattern(10'000, made));
        made += 10'000;
      }
      if (made == 2'000'000) pair.stream->close();
    };
    pair.stream->onDrained(produce);
    produce();
    std::string got;
    EXPECT_TRUE(loopUntil([&] {
      EXPECT_LE(pair.stream->unsent(), 64 << 10 | 10'000);
      got += pair.peer.read();
      return pair.peer.ended();
    }));
    EXPECT_TRUE(got == pattern(2'000'000));
    EXPECT_EQ(pair.end, StreamEnd::closed);
  });
}

TEST_P(StreamTest, EndsOnceForItsReasonAndLetsGoOfItsCallbacks) {
  run([] {
    struct Row {
      StreamEnd reason;
      std::function<void(StreamPair&)> act;
      int error = 0;
    };
    std::vector<Row> const rows{
        {StreamEnd::closed, [](StreamPair& pair) { pair.stream->close(); }},
        {StreamEnd::aborted, [](StreamPair& pair) { pair.stream->abort(); }},
        {StreamEnd::aborted,
         [](StreamPair& pair) {
           pair.stream->close();
           pair.stream->abort();
           EXPECT_EQ(pair.ends, 0);  // never from inside of an operation
         }},
        {StreamEnd::peerClosed, [](StreamPair& pair) { pair.peer.close(); }},
        {StreamEnd::failed,  // with input that the peer has not read, it resets
         [](StreamPair& pair) {
           pair.stream->send("unread");
           pair.peer.close();
         },
         ECONNRESET},
        {StreamEnd::failed,
         [](StreamPair& pair) {
           pair.peer.close();
           EXPECT_FALSE(pair.stream->send("too late"));
           EXPECT_EQ(pair.ends, 0);
         },
         EPIPE},
        {StreamEnd::idle, [](StreamPair& pair) { pair.stream->idleLimitIs(1ms); }},
        {StreamEnd::threw, [](StreamPair& pair) { pair.peer.write("throw"); }},
    };
    int thrown = 0;
    Brelo::schedulerRootBrelo()->taskExceptionHandlerIs([&](Brelo::_TaskBase&) {
      ++thrown;
      return true;
    });
    for (Row const& row : rows) {
      auto const held = std::make_shared<int>();
      StreamPair pair;
      pair.stream->receive([held](std::string_view) -> std::size_t { throw std::logic_error(""); });
      pair.stream->onDrained([held] {});
      row.act(pair);
      EXPECT_TRUE(pair.untilEnd()) << toString(row.reason);
      EXPECT_EQ(pair.end, row.reason);
      EXPECT_EQ(pair.error.value(), row.error) << toString(row.reason);
      EXPECT_TRUE(pair.stream->ended() && pair.stream->descriptor() == -1);
      EXPECT_FALSE(pair.stream->send("more"));
      pair.stream->close();
      pair.stream->abort();
      pair.stream->receive([held](std::string_view) { return std::size_t{0}; });
      pair.stream->onDrained([held] {});
      pair.stream->onReceiveEnd([held] {});
      pair.stream->idleLimitIs(1ms);
      loopABit();
      EXPECT_EQ(pair.ends, 1);
      EXPECT_EQ(held.use_count(), 1) << toString(row.reason);
    }
    EXPECT_EQ(thrown, 1);
  });
}

TEST_P(StreamTest, MayBeLetGoOfInAnyCallback) {
  run([] {
    using Setup = std::function<void(StreamPair&, std::function<void()> letGo)>;
    std::vector<Setup> const rows{
        [](StreamPair& pair, auto letGo) {
          pair.stream->receive([letGo](std::string_view bytes) {
            letGo();
            return bytes.size() / 2;
          });
        },
        [](StreamPair& pair, auto letGo) {
          pair.stream->receive([](std::string_view) { return std::size_t{0}; });
          pair.stream->onReceiveEnd(letGo);
        },
        [](StreamPair& pair, auto letGo) {
          pair.stream->onEnd([letGo](StreamEnd, std::error_code) { letGo(); });
          pair.stream->abort();
        },
        [](StreamPair& pair, auto letGo) {
          pair.stream->waterMarksIs(1, 2);
          pair.stream->onDrained(letGo);
          while (pair.stream->unsent() == 0)
            pair.stream->send(pattern(100'000));
        },
    };
    for (Setup const& setUp : rows) {
      StreamPair pair;
      auto const marker = std::make_shared<int>();
      bool gone = false;
      setUp(pair, [&gone, &pair, marker] {
        pair.stream->send("dropped");
        pair.stream.reset();
        EXPECT_GT(marker.use_count(), 1);  // this function is still there
        gone = true;
      });
      pair.peer.write("some");
      pair.peer.shutdownWrite();
      EXPECT_TRUE(loopUntil([&] {
        pair.peer.read();
        return gone && pair.peer.ended();
      }));
      EXPECT_EQ(marker.use_count(), 1);
      EXPECT_EQ(pair.ends, 0);
    }
  });
}

TEST_P(StreamTest, ClosesEitherHalfAlone) {
  run([] {
    StreamPair pair;
    std::string received;
    bool inputEnded = false;
    auto const receive = [&](std::string_view bytes) {
      received += bytes;
      return bytes.size();
    };
    pair.stream->receive(receive);
    pair.stream->halfOpenIs(true);
    pair.stream->onReceiveEnd([&] { inputEnded = true; });
    pair.peer.write("request");
    pair.peer.shutdownWrite();
    EXPECT_TRUE(loopUntil([&] { return inputEnded; }));
    EXPECT_EQ(received, "request");
    EXPECT_TRUE(pair.stream->send("late answer"));
    EXPECT_EQ(pair.peer.read(), "late answer");
    loopABit();
    EXPECT_EQ(pair.ends, 0);
    pair.stream->shutdownSend();
    EXPECT_TRUE(pair.untilEnd());
    EXPECT_EQ(pair.end, StreamEnd::peerClosed);

    StreamPair other;
    received.clear();
    other.stream->receive(receive);
    std::string const large = pattern(1'000'000);
    other.stream->send(large);
    other.stream->shutdownSend();
    EXPECT_FALSE(other.stream->send("after that"));
    std::string got;
    EXPECT_TRUE(loopUntil([&] {
      got += other.peer.read();
      return other.peer.ended();
    }));
    EXPECT_TRUE(got == large);
    other.peer.write("answer");
    EXPECT_TRUE(loopUntil([&] { return received == "answer"; }));
    EXPECT_EQ(other.ends, 0);
    other.peer.close();
    EXPECT_TRUE(other.untilEnd());
    EXPECT_EQ(other.end, StreamEnd::peerClosed);
  });
}

TEST_P(StreamTest, WorksOnTheEndsOfPipes) {
  run([] {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    auto const onPipe = [](int fd) {
      return std::make_unique<Stream>(Brelo::schedulerRootBrelo(), Brelo::TaskPriority::normal,
                                      "pipe", Descriptor(fd));
    };
    auto output = onPipe(fds[1]);
    auto input = onPipe(fds[0]);
    std::string const text = pattern(300'000);  // more than a pipe holds
    std::string got;
    std::optional<StreamEnd> inputEnd;
    input->receive([&](std::string_view bytes) {
      got += bytes;
      return bytes.size();
    });
    input->onEnd([&](StreamEnd reason, std::error_code) { inputEnd = reason; });
    output->send(text);
    output->shutdownSend();
    EXPECT_TRUE(loopUntil([&] { return inputEnd.has_value(); }));
    EXPECT_TRUE(got == text && output->ended());

    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    output = onPipe(fds[1]);
    std::error_code error;
    output->onEnd([&](StreamEnd, std::error_code code) { error = code; });
    ::close(fds[0]);
    EXPECT_FALSE(output->send("nobody reads, and no signal comes"));
    EXPECT_TRUE(loopUntil([&] { return error.value() == EPIPE; }));
  });
}

TEST_P(StreamTest, ServesOthersWhileACallbackRunsTheLoop) {
  if (GetParam() == Backend::libevent) GTEST_SKIP() << "whose loop cannot be entered twice";
  run([] {
    StreamPair outer;
    StreamPair inner(SOCK_STREAM, Brelo::schedulerRootBreloNonShared("inner"));
    for (auto* pair : {&outer, &inner}) {
      pair->stream->receive([&, pair](std::string_view bytes) {
        std::string const before(bytes);
        pair->stream->send("<");
        if (pair == &outer && bytes == "go") {
          outer.peer.write("meanwhile");
          inner.peer.write("inner");
          EXPECT_TRUE(loopUntil([&] { return inner.peer.read() == "<inner"; }));
          loopABit();
        }
        EXPECT_EQ(before, bytes);
        pair->stream->send(bytes);
        return bytes.size();
      });
    }
    outer.peer.write("go");
    std::string got;
    EXPECT_TRUE(loopUntil([&] { return (got += outer.peer.read()) == "<go<meanwhile"; }));
  });
}

TEST_P(StreamTest, EndsWhereMemoryOrACallFails) {
  run([] {
    auto const echo = [](StreamPair& pair) {
      pair.stream->receive([&pair](std::string_view bytes) {
        pair.stream->send(bytes);
        return bytes.size() - 1;
      });
    };
    struct Row {
      Faults faults;
      bool ends;
    };
    for (Row const& row : std::vector<Row>{{{{"recv", {EINTR}}}, false},
                                           {{{"recv", {EAGAIN}}}, false},
                                           {{{"recv", {ETIMEDOUT}}}, true},
                                           {{{"send", {EINTR}}}, false},
                                           {{{"send", {EAGAIN}}}, false},
                                           {{{"send", {ENOMEM}}}, true}}) {
      StreamPair pair;
      echo(pair);
      loopABit();
      pair.peer.write("bytes");
      {
        FaultInjection const faults(row.faults);
        std::string got;
        EXPECT_TRUE(loopUntil([&] {
          return (got += pair.peer.read()) == "bytes" || pair.ends > 0;
        })) << got;
        EXPECT_TRUE(faults.left().empty());
      }
      EXPECT_EQ(pair.end == StreamEnd::failed, row.ends);
    }
  });
}

TEST(Stream, ItsEndsHaveNames) {
  std::string names;
  for (int end = 0; end <= static_cast<int>(StreamEnd::threw) + 1; ++end)
    names += toString(static_cast<StreamEnd>(end)) + std::string(" ");
  EXPECT_EQ(names, "closed aborted peerClosed idle receiveLimit failed threw unknownEnd ");
}

TEST(Stream, CountsTheIdleTimeFromTheLastByteInEitherDirection) {
  Brelo::Platform::setFastForward(true);
  StreamPair pair;
  pair.stream->receive([](std::string_view bytes) { return bytes.size(); });
  pair.stream->idleLimitIs(60s);
  double const start = Brelo::time();
  for (int i = 0; i < 4; ++i) {
    Brelo::Platform::doEventLoop(40);
    if (i % 2 == 0) {
      pair.peer.write("x");
    } else {
      pair.stream->send("x");
    }
  }
  Brelo::Platform::doEventLoop(59);
  EXPECT_EQ(pair.ends, 0);
  double end = 0;
  pair.stream->onEnd([&](StreamEnd reason, std::error_code) {
    EXPECT_EQ(reason, StreamEnd::idle);
    end = Brelo::time();
  });
  Brelo::Platform::doEventLoop(100);
  EXPECT_NEAR(end - start, 4 * 40 + 60, 0.5);
  Brelo::Platform::setFastForward(false);
}

}  // namespace
}  // namespace BreloDaemon
