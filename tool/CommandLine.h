#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Tool {

/// An option of a command, to say more of it. It is a handle: a copy is the same option.
class Option {
 public:
  explicit Option(CLI::Option& option) : option_(&option) {}

  Option required() const;
  Option defaultShown() const;  ///< in the help, as its variable has it now
  /// What it takes; any other is told to the user.
  /// @{
  Option within(double least, double most) const;
  Option countWithin(std::uint64_t least, std::uint64_t most) const;
  Option notNegative() const;
  Option oneOf(std::vector<std::string> const& words) const;
  /// @}
  Option excludes(Option other) const;
  Option needs(Option other) const;

 private:
  CLI::Option* option_;
};

/// The program's command line, or a subcommand of it, to add to. It is a handle, as Option is; the
/// parser behind it is known to its source alone, since it takes far longer to compile than all
/// commands together.
class Command {
 public:
  explicit Command(CLI::App& app) : app_(&app) {}

  /// A subcommand, and what it does with the options that live as long as it.
  template <class Options, class Run>
  Command subcommand(char const* name, char const* description,
                     std::shared_ptr<Options> const& options, Run run) const {
    return subcommand(name, description, [options, run] { run(*options); });
  }
  Option flag(char const* names, bool& value, char const* help) const;
  /// An option with a value, or an argument where the name has no dash.
  /// @{
  Option value(char const* names, std::string& value, char const* help) const;
  Option value(char const* names, double& value, char const* help) const;
  Option value(char const* names, unsigned& value, char const* help) const;
  Option value(char const* names, std::uint64_t& value, char const* help) const;
  Option value(char const* names, std::optional<std::uint64_t>& value, char const* help) const;
  Option value(char const* names, std::vector<std::string>& value, char const* help) const;
  /// @}
  void footer(char const* text) const;

 private:
  Command subcommand(char const* name, char const* description, std::function<void()> run) const;

  CLI::App* app_;
};

/// Runs the command that a command line asks for, of those that `add` adds, or prints the help or
/// the version that it asks for.
/// @throws Failure  where nothing is there to run; and what the command throws
void runCommand(char const* description, std::function<void(Command const&)> const& add, int argc,
                char** argv);

}  // namespace Tool
