#include "Commands.h"
#include "Documents.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  bool json = false;
};

void run(Options const& options) {
  std::string const answer = options.daemon.connect().ask("pending");
  if (options.json) return print(answer);
  Json const document = readDocument(answer, "pending");
  std::string text;
  for (Json const& each : arrayOf(document, "pending")) {
    text += printable(asText(each, "?")) + "\n";
  }
  print(text);
}

}  // namespace

void addPending(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "pending", "Print what keeps the daemon's loop running, one on a line", options, run);
  addTarget(command, options->daemon);
  command.flag("--json", options->json, "the daemon's document as it is");
}

}  // namespace Tool
