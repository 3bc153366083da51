#include "Commands.h"
#include "Output.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  bool text = false;
};

void run(Options const& options) {
  print(options.daemon.connect().ask(options.text ? "report text" : "report"));
}

}  // namespace

void addReport(CLI::App& app) {
  auto const options = std::make_shared<Options>();
  CLI::App& command =
      addCommand(app, "report", "Print the scheduler's own report, as JSON", options, run);
  addTarget(command, options->daemon);
  command.add_flag("--text", options->text, "as a table for people");
}

}  // namespace Tool
