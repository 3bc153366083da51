// brelo: looks into daemons that run on libZelBrelo.
#include <clocale>
#include <csignal>
#include <cstdio>
#include <new>
#include <string>

#include "CommandLine.h"
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

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "");  // for the width of characters
  try {
    Tool::runCommand("Looks into daemons that run on libZelBrelo, over their statistics sockets.",
                     addCommands, argc, argv);
  } catch (Tool::OutputClosed const&) {
  } catch (Tool::Failure const& failure) {
    return failed(failure.code(), failure.what());
  } catch (std::bad_alloc const&) {
    return failed(ExitCode::failed, "there is not enough memory for the answer");
  }
  return static_cast<int>(ExitCode::done);
}
