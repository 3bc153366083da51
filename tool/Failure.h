#pragma once

#include <stdexcept>

namespace Tool {

/// What the program ends with.
enum class ExitCode {
  done = 0,
  failed = 1,  ///< the daemon cannot be reached or answers wrongly, or the output cannot be written
  usage = 2,   ///< the command line is wrong
};

/// Ends a command: `main` prints the text, one line that says what to do, and exits with the code.
class Failure : public std::runtime_error {
 public:
  explicit Failure(std::string const& text, ExitCode code = ExitCode::failed)
      : std::runtime_error(text), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace Tool
