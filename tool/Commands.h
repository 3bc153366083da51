#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <string>

#include "Connection.h"

/// The subcommands: each adds itself, its options and what it does to the program's command line,
/// in a file of its own, and has a line in `main`'s list. What they do may throw `Failure`.
namespace Tool {

void addMetrics(CLI::App& app);
void addReport(CLI::App& app);
void addTimeline(CLI::App& app);
void addTop(CLI::App& app);

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

/// A subcommand with the options that live as long as it, and what it does with them.
template <class Options, class Run>
CLI::App& addCommand(CLI::App& app, char const* name, char const* description,
                     std::shared_ptr<Options> const& options, Run run) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.callback([options, run] { run(*options); });
  return command;
}

}  // namespace Tool
