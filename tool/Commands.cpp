#include "Commands.h"

#include <algorithm>

#include "Failure.h"
#include "Text.h"

namespace Tool {

Connection Target::connect() const {
  return connect(Connection::Limits().connect);
}

Connection Target::connect(std::chrono::milliseconds connectMax) const {
  using std::chrono::duration;
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  Connection::Limits limits;
  limits.answer = duration_cast<milliseconds>(duration<double>(timeoutSeconds));
  limits.connect = std::min(connectMax, limits.answer);
  return Connection(path, limits);
}

void addTarget(Command const& command, Target& target) {
  command.value("SOCKET", target.path, "Unix socket at which the daemon answers").required();
  addTimeout(command, target.timeoutSeconds);
}

void addTimeout(Command const& command, double& seconds) {
  command.value("--timeout", seconds, "seconds that the daemon may take for an answer")
      .within(0.001, 1e6)
      .defaultShown();
}

std::string requestValue(std::string const& word) {
  if (word != printable(word) || word.find('"') != std::string::npos || word.size() > 500) {
    throw Failure("the daemon does not take \"" + word.substr(0, 80) +
                      "\": strange characters, or more than 500",
                  ExitCode::usage);
  }
  return word.find(' ') == std::string::npos ? word : '"' + word + '"';
}

}  // namespace Tool
