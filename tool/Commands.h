#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <string>

#include "Connection.h"

/// The subcommands: each adds itself, its options and what it does to the program's command line,
/// in a file of its own, and has a line in `main`'s list. What they do may throw `Failure`.
namespace Tool {

void addExceptions(CLI::App& app);
void addHistory(CLI::App& app);
void addMetrics(CLI::App& app);
void addMonitor(CLI::App& app);
void addPending(CLI::App& app);
void addReport(CLI::App& app);
void addStalls(CLI::App& app);
void addTimeline(CLI::App& app);
void addTop(CLI::App& app);
void addTrace(CLI::App& app);

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
void addTarget(CLI::App& command, Target& target);
/// Adds the option --timeout alone.
void addTimeout(CLI::App& command, double& seconds);

/// A word as the value of a request's argument, in quotation marks if it needs them; a `Failure` of
/// usage if it cannot be one.
std::string requestValue(std::string const& word);

/// A subcommand with the options that live as long as it, and what it does with them.
template <class Options, class Run>
CLI::App& addCommand(CLI::App& app, char const* name, char const* description,
                     std::shared_ptr<Options> const& options, Run run) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.callback([options, run] { run(*options); });
  return command;
}

}  // namespace Tool
