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

void addReport(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command =
      program.subcommand("report", "Print the scheduler's own report, as JSON", options, run);
  addTarget(command, options->daemon);
  command.flag("--text", options->text, "as a table for people");
}

}  // namespace Tool
