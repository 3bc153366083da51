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

void addPending(CLI::App& app) {
  auto const options = std::make_shared<Options>();
  CLI::App& command = addCommand(
      app, "pending", "Print what keeps the daemon's loop running, one on a line", options, run);
  addTarget(command, options->daemon);
  command.add_flag("--json", options->json, "the daemon's document as it is");
}

}  // namespace Tool
