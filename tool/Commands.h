#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "Connection.h"

/// The subcommands: each adds itself, its options and what it does to the program's command line,
/// in a file of its own, and has a line in `main`'s list. What they do may throw `Failure`.
namespace Tool {

void addExceptions(Command const& program);
void addHistory(Command const& program);
void addMetrics(Command const& program);
void addMonitor(Command const& program);
void addPending(Command const& program);
void addReport(Command const& program);
void addStalls(Command const& program);
void addTimeline(Command const& program);
void addTop(Command const& program);
void addTrace(Command const& program);

/// The daemon that a command asks, as the command line names it.
struct Target {
  std::string path;
  double timeoutSeconds = 10;

  /// @{
  Connection connect() const;
  Connection connect(std::chrono::milliseconds connectMax) const;
  /// @}
};

/// Adds the argument SOCKET and the option --timeout.
void addTarget(Command const& command, Target& target);
/// Adds the option --timeout alone.
void addTimeout(Command const& command, double& seconds);

/// A word as the value of a request's argument, in quotation marks if it needs them; a `Failure` of
/// usage if it cannot be one.
std::string requestValue(std::string const& word);

}  // namespace Tool
