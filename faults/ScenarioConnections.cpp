// The part of the scenario that listens, connects, and sends back what comes.

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Attempts.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Listener.h"
#include "FailingMalloc.h"

namespace Faults {

using BreloDaemon::Connector;
using BreloDaemon::Listener;
using BreloDaemon::Stream;
using BreloDaemon::StreamEnd;

namespace {

std::string largeText() {
  Uncounted const own;
  std::string text(400'000, '\0');
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<char>(i * 7 >> 3);
  return text;
}

/// One client: connects, sends all, and gets all of it back.
struct Client {
  bool served() const { return end == StreamEnd::peerClosed && right && got == text.size(); }

  void begin(Connector& connector, std::string const& address) {
    connector.connect(address, [this](std::shared_ptr<Stream> made, std::error_code) {
      stream = std::move(made);
      failed = stream == nullptr;
      if (stream) talk();
    });
  }
  void talk() try {
    stream->onEnd([this](StreamEnd reason, std::error_code) { end = reason; });
    stream->receive([this](std::string_view bytes) {
      right = right && bytes == text.substr(got, bytes.size());
      got += bytes.size();
      return bytes.size();
    });
    stream->idleLimitIs(std::chrono::seconds(2));
    stream->send(text.substr(0, 5));
    stream->send({text.substr(5, 5), text.substr(10)});
    stream->shutdownSend();
  } catch (std::bad_alloc const&) {
    failed = true;
  }

  std::string_view text;
  std::shared_ptr<Stream> stream = nullptr;
  bool failed = false;
  std::optional<StreamEnd> end = std::nullopt;
  std::size_t got = 0;
  bool right = true;
};

void echo(Stream& client) {
  client.idleLimitIs(std::chrono::seconds(2));
  client.receive([&client](std::string_view bytes) {
    client.send(bytes);
    return bytes.size();
  });
}

}  // namespace

void Scenario::connections() {
  static std::string const text = largeText();
  auto const path = [] {
    Uncounted const own;
    return "/tmp/brelo-faults-" + std::to_string(::getpid());
  }();
  // What a callback lets pass ends its stream and nothing else.
  attempt([&] {
    root_->taskExceptionHandlerIs([this](Brelo::_TaskBase&) {
      ++refused_;
      return true;
    });
  });
  auto listener = attempt([&] {
    return std::make_unique<Listener>(group_, BreloDaemon::Addresses{"127.0.0.1:0", "unix:" + path},
                                      echo);
  });
  auto connector = attempt([&] { return std::make_unique<Connector>(root_); });
  auto const addresses = [&] {
    Uncounted const own;
    return std::array<std::string, 2>{"localhost:" + std::to_string(listener->port()),
                                      "unix:" + path};
  }();
  for (std::string const& address : addresses) {
    for (int left = 2;; --left) {
      Client client{text};
      attempt([&] { client.begin(*connector, address); });
      loopUntil("a connection ends", [&] { return client.failed || client.end; });
      if (client.served()) break;
      ++refused_;
      expect(left > 0, "all is sent back");
    }
  }
  loopUntil("no connection is left", [&] { return listener->connections() == 0; });
  connector.reset();
  listener.reset();
  root_->taskExceptionHandlerIs(nullptr);
  // Where a call on the way to its end fails, the file stays for the next to start.
  if (::unlink(path.c_str()) == 0) ++refused_;
}

}  // namespace Faults
