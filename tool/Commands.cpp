#include "Commands.h"

#include <algorithm>

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

void addTarget(CLI::App& command, Target& target) {
  command.add_option("SOCKET", target.path, "Unix socket at which the daemon answers")->required();
  addTimeout(command, target.timeoutSeconds);
}

void addTimeout(CLI::App& command, double& seconds) {
  command.add_option("--timeout", seconds, "seconds that the daemon may take for an answer")
      ->check(CLI::Range(0.001, 1e6))
      ->capture_default_str();
}

}  // namespace Tool
