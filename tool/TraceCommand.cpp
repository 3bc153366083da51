#include "Commands.h"
#include "Documents.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  std::string settings;
};

/// Settings are the rest of the request, blanks included.
std::string requestOf(std::string const& settings) {
  if (settings.empty()) return "trace";
  constexpr std::size_t settingsMax = 900;
  if (settings != printable(settings) || settings.size() > settingsMax) {
    throw Failure("trace settings are one line of at most 900 bytes, as TaskScheduler/4+5",
                  ExitCode::usage);
  }
  return "trace " + settings;
}

void run(Options const& options) {
  std::string const request = requestOf(options.settings);
  Json const document = readDocument(options.daemon.connect().ask(request), "trace");
  print(printable(textOf(document, "trace")) + "\n");
}

}  // namespace

void addTrace(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "trace", "Print the trace settings in force, after adding some", options, run);
  addTarget(command, options->daemon);
  command.value("SETTINGS", options->settings,
                "what to add, as TaskScheduler/4+5; with a dash in front of it (after --) what "
                "to take back");
}

}  // namespace Tool
