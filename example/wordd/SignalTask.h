#pragma once

#include <functional>
#include <initializer_list>
#include <memory>

#include "Brelo/FileDescriptorTask.h"
#include "Descriptor.h"

namespace Wordd {

/// Turns signals into runs: they arrive between two tasks, like everything else, and not in the
/// middle of one. Blocks them for the calling thread and the threads that it starts afterwards;
/// they stay blocked.
class SignalTask : public Brelo::FileDescriptorTask {
 public:
  /// Calls `handler` with the number of each signal. It may give up the last owner of the task.
  SignalTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::initializer_list<int> signals,
             std::function<void(int)> handler);
  ~SignalTask() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}

 private:
  Descriptor signals_;
  std::function<void(int)> handler_;
};

}  // namespace Wordd
