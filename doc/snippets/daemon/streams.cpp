// The code of doc/daemon/streams.md.
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Listener.h"
#include "BreloDaemon/Stream.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;

namespace {

// Answers each line.
void answerLines(Stream& client) {
  client.idleLimitIs(60s);
  client.receiveLimitIs(4096);
  client.receive([&client](std::string_view bytes) {
    std::size_t done = 0;
    for (auto end = bytes.find('\n'); end != bytes.npos; end = bytes.find('\n', done)) {
      client.send({"you said ", bytes.substr(done, end + 1 - done)});
      done = end + 1;
    }
    return done;  // the part of a line comes again, with more
  });
}

// Sends a file to who has connected, as fast as that one takes it.
void sendFile(Stream& client, std::string const& path) {
  auto const file = std::make_shared<std::ifstream>(path, std::ios::binary);
  auto const more = [&client, file] {
    char piece[16 << 10];
    while (client.unsent() < 64 << 10) {
      file->read(piece, sizeof piece);
      if (file->gcount() == 0) return client.close();
      client.send({piece, static_cast<std::size_t>(file->gcount())});
    }
  };
  client.onDrained(more);
  more();
}

}  // namespace

void streams() {
  auto const scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
  Listener lines(scheduler, "unix:@brelo-snippet-lines", answerLines);
  Listener files(scheduler, "unix:@brelo-snippet-files",
                 [](Stream& client) { sendFile(client, "/proc/self/exe"); });
  Connector connector(scheduler);
  std::string answer;
  std::shared_ptr<Stream> talk;
  std::shared_ptr<Stream> download;
  std::optional<StreamEnd> end;
  connector.connect("unix:@brelo-snippet-lines", [&](std::shared_ptr<Stream> made, auto) {
    talk = std::move(made);
    talk->receive([&](std::string_view bytes) {
      answer += bytes;
      return bytes.size();
    });
    talk->send("hello\nhe");
    talk->send("llo\n");
  });
  connector.connect("unix:@brelo-snippet-files", [&](std::shared_ptr<Stream> made, auto) {
    download = std::move(made);
    download->receive([](std::string_view bytes) { return bytes.size(); });
    download->onEnd([&](StreamEnd reason, std::error_code) { end = reason; });
  });
  double const limit = Brelo::time() + 10;
  while ((answer.size() < 30 || !end) && Brelo::time() < limit)
    Brelo::Platform::doEventLoopInWaitfor(0.01);
  if (answer != "you said hello\nyou said hello\n" || end != StreamEnd::peerClosed) throw 1;
}
