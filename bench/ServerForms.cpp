// The project's servers: a control or a task for each connection.

#include <deque>
#include <memory>
#include <vector>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Servers.h"

namespace Bench {

namespace {

/// All connections of a server. The last answer stops all of them, and the loop returns.
template <class Connection>
struct Service {
  void readable(int fd) {
    if (!requests.answer(fd)) return;
    for (Connection& each : connections)
      each.stop();
  }

  Requests& requests;
  std::deque<Connection> connections;
};

class ControlConnection : Brelo::Platform::FdEventHandler {
 public:
  ControlConnection(Service<ControlConnection>& service, int fd) : service_(service) {
    control_->setReads(true);
    control_->setFd(fd);
  }
  void stop() { control_->delFd(); }

 private:
  void readFdEvent(int fd) override {
    service_.requests.reported();
    service_.readable(fd);
  }
  void writeFdEvent(int) override {}

  Service<ControlConnection>& service_;
  std::shared_ptr<Brelo::Platform::FdControl> control_ = Brelo::Platform::getFdControl(this);
};

class TaskConnection {
 public:
  TaskConnection(Service<TaskConnection>& service,
                 std::shared_ptr<Brelo::TaskScheduler> const& scheduler, int fd)
      : task_(std::make_shared<ConnectionTask>(service, scheduler)) {
    task_->taskWatchFdIs(fd);
  }
  void stop() { task_->taskWatchFdDel(); }

 private:
  class ConnectionTask : public Brelo::FileDescriptorTask {
   public:
    ConnectionTask(Service<TaskConnection>& service,
                   std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
        : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "connection"),
          service_(service) {}
    void readFdEvent(int fd) override {
      service_.requests.reported();
      FileDescriptorTask::readFdEvent(fd);
    }
    void taskExecuteReadable() override { service_.readable(taskWatchFd()); }
    void taskExecuteWritable() override {}

   private:
    Service<TaskConnection>& service_;
  };

  std::shared_ptr<ConnectionTask> task_;
};

void serveWithTasks(std::shared_ptr<Brelo::TaskScheduler> const& scheduler,
                    std::vector<int> const& connections, Requests& requests) {
  Service<TaskConnection> service{requests, {}};
  for (int const fd : connections)
    service.connections.emplace_back(service, scheduler, fd);
  Brelo::Platform::doEventLoop();
}

}  // namespace

void serveWithControls(std::vector<int> const& connections, Requests& requests) {
  Service<ControlConnection> service{requests, {}};
  for (int const fd : connections)
    service.connections.emplace_back(service, fd);
  Brelo::Platform::doEventLoop();
}

void serveWithRootTasks(std::vector<int> const& connections, Requests& requests) {
  serveWithTasks(Brelo::schedulerRootBreloNonShared("bench"), connections, requests);
}

void serveWithGroupTasks(std::vector<int> const& connections, Requests& requests) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const group =
      Brelo::TaskGroup::TaskGroupIs("connections", Brelo::TaskPriority::normal, false, root);
  serveWithTasks(group, connections, requests);
}

}  // namespace Bench
