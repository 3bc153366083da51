#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <string>
#include <utility>

#include "Failure.h"

namespace Tool {

Option Option::required() const {
  return Option(*option_->required());
}

Option Option::defaultShown() const {
  return Option(*option_->capture_default_str());
}

Option Option::within(double least, double most) const {
  return Option(*option_->check(CLI::Range(least, most)));
}

Option Option::countWithin(std::uint64_t least, std::uint64_t most) const {
  return Option(*option_->check(CLI::Range(least, most)));
}

Option Option::notNegative() const {
  return Option(*option_->check(CLI::NonNegativeNumber));
}

Option Option::oneOf(std::vector<std::string> const& words) const {
  return Option(*option_->check(CLI::IsMember(words)));
}

Option Option::excludes(Option other) const {
  return Option(*option_->excludes(other.option_));
}

Option Option::needs(Option other) const {
  return Option(*option_->needs(other.option_));
}

Command Command::subcommand(char const* name, char const* description,
                            std::function<void()> run) const {
  CLI::App* const command = app_->add_subcommand(name, description);
  command->callback(std::move(run));
  return Command(*command);
}

Option Command::flag(char const* names, bool& value, char const* help) const {
  return Option(*app_->add_flag(names, value, help));
}

Option Command::value(char const* names, std::string& value, char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

Option Command::value(char const* names, double& value, char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

Option Command::value(char const* names, unsigned& value, char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

Option Command::value(char const* names, std::uint64_t& value, char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

Option Command::value(char const* names, std::optional<std::uint64_t>& value,
                      char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

Option Command::value(char const* names, std::vector<std::string>& value, char const* help) const {
  return Option(*app_->add_option(names, value, help));
}

void Command::footer(char const* text) const {
  app_->footer(text);
}

namespace {

std::string whatIsWrong(CLI::App const& app, CLI::ParseError const& error) {
  auto const unknown = app.remaining();
  bool const noSuchCommand = app.get_subcommands().empty() && !unknown.empty();
  return noSuchCommand ? "there is no command " + unknown.front() : error.what();
}

}  // namespace

void runCommand(char const* description, std::function<void(Command const&)> const& add, int argc,
                char** argv) {
  CLI::App app(description, "brelo");
  app.set_version_flag("--version", "brelo " BRELO_VERSION);
  app.require_subcommand(1);
  add(Command(app));
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& error) {
    bool const wrong = error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success);
    if (wrong) throw Failure(whatIsWrong(app, error) + "; see brelo --help", ExitCode::usage);
    app.exit(error);  // which prints what was asked for
  }
}

}  // namespace Tool
