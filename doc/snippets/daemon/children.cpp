// The code of doc/daemon/children.md.
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "BreloDaemon/ChildTask.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Stream.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;
using Brelo::TaskPriority;

void childPrograms() {
  Daemon daemon("mydaemon");
  std::string text;
  int left = 2;
  auto const done = [&] {
    if (--left == 0) daemon.stop();
  };

  ChildProgram program;
  program.path = "sort";
  program.pathSearched = true;
  program.arguments = {"-r"};
  program.environment = {"LC_ALL=C"};
  program.input = program.output = ChildProgram::Standard::pipe;
  program.group = ChildProgram::Group::own;
  program.timeLimit = 10s;

  ChildTask child(daemon.scheduler(), TaskPriority::normal, "sort", std::move(program),
                  [&](ChildEnd const& end) {
                    if (!end.success()) std::cout << "sort " << toString(end) << '\n';
                    done();
                  });

  auto const input = std::make_shared<Stream>(daemon.scheduler(), TaskPriority::normal, "to sort",
                                              child.takeInput());
  input->send("one\ntwo\nthree\n");
  input->close();
  auto const output = std::make_shared<Stream>(daemon.scheduler(), TaskPriority::normal,
                                               "from sort", child.takeOutput());
  output->receive([&](std::string_view bytes) {
    text += bytes;
    return bytes.size();
  });
  output->onEnd([&](StreamEnd, std::error_code) { done(); });

  daemon.run();
}
