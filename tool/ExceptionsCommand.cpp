#include "Commands.h"
#include "Documents.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  bool on = false;
  bool off = false;
  bool json = false;
};

std::string textOfExceptions(Json const& document) {
  Json const& exceptions = arrayOf(document, "exceptions");
  std::string text = std::to_string(exceptions.size()) +
                     " of the latest exceptions, recording is " +
                     (flagOf(document, "enabled") ? "on\n" : "off (--on turns it on)\n");
  for (Json const& exception : exceptions) {
    text += "\n" + printable(textOf(exception, "message", "?")) + "\n";
    for (Json const& frame : arrayOf(exception, "backtrace")) {
      text += "  " + printable(asText(frame, "?")) + "\n";
    }
  }
  return text;
}

void run(Options const& options) {
  std::string const request = options.on    ? "exceptions on"
                              : options.off ? "exceptions off"
                                            : "exceptions";
  std::string const answer = options.daemon.connect().ask(request);
  print(options.json ? answer : textOfExceptions(readDocument(answer, "exceptions")));
}

}  // namespace

void addExceptions(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "exceptions", "Print the latest exceptions with their backtraces", options, run);
  addTarget(command, options->daemon);
  Option const on = command.flag("--on", options->on, "turn their recording on");
  command.flag("--off", options->off, "turn it off").excludes(on);
  command.flag("--json", options->json, "the daemon's document as it is");
}

}  // namespace Tool
