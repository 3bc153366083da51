#include "BreloDaemon/Listener.h"

#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "BreloDaemon/internal/SocketAddress.h"
#include "daemon/support/StreamPair.h"
#include "support/Backend.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

class ListenerTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(ListenerTest);

void echo(Stream& client) {
  client.receive([&client](std::string_view bytes) {
    client.send(bytes);
    return bytes.size();
  });
}

Peer connectTo(std::string const& address) {
  auto const parsed = SocketAddress::parse(address);
  Descriptor fd(::socket(parsed.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(fd.get(), parsed.get(), parsed.size()), 0) << address << ": " << errno;
  return Peer(std::move(fd));
}

bool answers(Peer& peer) {
  std::string got;
  peer.write("ping");
  return loopUntil([&] { return (got += peer.read()).size() == 4 || peer.ended(); }) &&
         got == "ping";
}

TEST_P(ListenerTest, ServesAtEveryAddress) {
  run([] {
    std::string const path = "/tmp/brelo-listener-" + std::to_string(::getpid());
    Listener listener(Brelo::schedulerRootBrelo(),
                      {"127.0.0.1:0", "[::1]:0", path, "unix:@brelo" + path, "*:0"}, echo);
    ASSERT_EQ(listener.addresses().size(), 6);
    for (std::size_t i = 0; i < 4; ++i) {
      Peer peer = connectTo(listener.addresses()[i]);
      EXPECT_TRUE(answers(peer)) << listener.addresses()[i];
    }
    EXPECT_EQ("127.0.0.1:" + std::to_string(listener.port()), listener.addresses()[0]);
    EXPECT_TRUE(loopUntil([&] { return listener.connections() == 0; }));
    Peer last = connectTo(path);
    EXPECT_TRUE(answers(last));
    listener.close();
    EXPECT_TRUE(loopUntil([&] { return listener.connections() == 0; }));
    last.read();
    EXPECT_TRUE(last.ended());
    EXPECT_FALSE(std::filesystem::exists(path));
  });
}

}  // namespace
}  // namespace BreloDaemon
