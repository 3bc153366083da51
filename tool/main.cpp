// brelo: looks into daemons that run on libZelBrelo.
#include <CLI/CLI.hpp>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <new>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"

namespace {

using Tool::ExitCode;

void addCommands(Tool::Command const& program) {
  Tool::addTop(program);
  Tool::addMonitor(program);
  Tool::addStalls(program);
  Tool::addHistory(program);
  Tool::addTimeline(program);
  Tool::addMetrics(program);
  Tool::addReport(program);
  Tool::addPending(program);
  Tool::addExceptions(program);
  Tool::addTrace(program);
}

int failed(ExitCode code, std::string const& text) {
  std::fprintf(stderr, "brelo: %s\n", Tool::printable(text).c_str());
  return static_cast<int>(code);
}

/// What the command line asks for beside a command, or what is wrong with it.
int usage(CLI::App const& app, CLI::ParseError const& error) {
  bool const wrong = error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success);
  if (!wrong) return app.exit(error);
  auto const unknown = app.remaining();
  bool const noSuchCommand = app.get_subcommands().empty() && !unknown.empty();
  std::string const what = noSuchCommand ? "there is no command " + unknown.front() : error.what();
  return failed(ExitCode::usage, what + "; see brelo --help");
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "");  // for the width of characters
  try {
    CLI::App app("Looks into daemons that run on libZelBrelo, over their statistics sockets.",
                 "brelo");
    app.set_version_flag("--version", "brelo " BRELO_VERSION);
    app.require_subcommand(1);
    addCommands(Tool::Command(app));
    try {
      app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
      return usage(app, error);
    }
  } catch (Tool::OutputClosed const&) {
  } catch (Tool::Failure const& failure) {
    return failed(failure.code(), failure.what());
  } catch (std::bad_alloc const&) {
    return failed(ExitCode::failed, "there is not enough memory for the answer");
  }
  return static_cast<int>(ExitCode::done);
}
