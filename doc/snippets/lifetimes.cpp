#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "Snippets.h"

using namespace Brelo;

namespace {

class Heartbeat : public TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override { scheduleTaskDelay(60.0); }
};

}  // namespace

void endings() {
  auto root = TaskSchedulerRoot::TaskSchedulerRootIs("mydaemon");
  auto heartbeat = std::make_shared<Heartbeat>(root, TaskPriority::normal, "heartbeat");
  heartbeat->scheduleTask();
  Platform::doEventLoop(0.01);
  heartbeat.reset();
  root.reset();             // and with it the wheel's timer
  Platform::doEventLoop();  // returns at once
}

void exports() {
  signal(SIGPIPE, SIG_IGN);
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  int const client = ends[0];
  int const size = 4096;
  ::setsockopt(client, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("mydaemon");
  std::vector<std::shared_ptr<Heartbeat>> tasks(100);
  for (auto& task : tasks)
    task = std::make_shared<Heartbeat>(root, TaskPriority::normal, "heartbeat");

  int const handle = ::dup(client);  // the export closes `client` itself
  bool over = false;
  auto const snapshot =
      root->snapshot("", true, true, false, TaskSchedulerSnapshot::displayOrderUnset);
  root->snapshotRenderJsonAsync(client, {snapshot}, [&over] { over = true; });
  Platform::doEventLoop(0.01);
  if (over) std::abort();  // this reader never reads

  if (!over) ::shutdown(handle, SHUT_RDWR);  // after a while: the export ends, and calls `over`
  ::close(handle);
  Platform::doEventLoop();
  if (!over) std::abort();
  ::close(ends[1]);
}
