// The code of doc/migration/asio.md.
#include <array>
#include <boost/asio.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Listener.h"
#include "MigrationSnippets.h"

using namespace BreloDaemon;

namespace {

// An echo for one client, and that client, with Asio.
void before() {
  using boost::asio::ip::tcp;
  boost::asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));

  struct Session : std::enable_shared_from_this<Session> {
    explicit Session(tcp::socket given) : socket(std::move(given)) {}
    void read() {
      socket.async_read_some(
          boost::asio::buffer(buffer), [self = shared_from_this()](auto error, std::size_t got) {
            if (error) return;
            boost::asio::async_write(self->socket, boost::asio::buffer(self->buffer, got),
                                     [self](auto failed, std::size_t) {
                                       if (!failed) self->read();
                                     });
          });
    }
    tcp::socket socket;
    std::array<char, 4096> buffer;
  };
  acceptor.async_accept([](auto error, tcp::socket socket) {
    if (!error) std::make_shared<Session>(std::move(socket))->read();
  });

  tcp::socket client(io);
  std::array<char, 64> answer;
  client.async_connect(acceptor.local_endpoint(), [&](auto error) {
    if (error) return;
    boost::asio::async_write(client, boost::asio::buffer("hello", 5), [&](auto, std::size_t) {
      client.async_read_some(boost::asio::buffer(answer), [&](auto, std::size_t got) {
        std::printf("%.*s came back\n", static_cast<int>(got), answer.data());
        client.close();
      });
    });
  });
  io.run();
}

// The same here. A stream keeps its buffers and its order of writes; who makes it owns it.
void after() {
  auto const root = Brelo::schedulerRootBrelo();
  Listener listener(root, "127.0.0.1:0", [](Stream& client) {
    client.receive([&client](std::string_view bytes) {
      client.send(bytes);
      return bytes.size();
    });
  });

  Connector connector(root);
  std::shared_ptr<Stream> client;
  connector.connect(
      listener.addresses().front(), [&](std::shared_ptr<Stream> stream, std::error_code error) {
        if (error) return;
        client = std::move(stream);
        client->send("hello");
        client->receive([&](std::string_view bytes) {
          std::printf("%.*s came back\n", static_cast<int>(bytes.size()), bytes.data());
          Brelo::Platform::stopEventLoop();
          return bytes.size();
        });
      });
  Brelo::Platform::doEventLoop();
}

}  // namespace

void fromAsio() {
  before();
  after();
}
