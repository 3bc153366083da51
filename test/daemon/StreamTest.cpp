#include "BreloDaemon/Stream.h"

#include "daemon/support/StreamPair.h"
#include "support/Backend.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

class StreamTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StreamTest);

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

}  // namespace
}  // namespace BreloDaemon
