#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskGroup.h"
#include "CountTask.h"
#include "Descriptor.h"
#include "Timeout.h"

namespace Wordd {

/// One client: takes its text until the client has sent everything, then sends the answer.
///
/// What a client can make us hold is bounded: `CountTask::queueMax` bytes of text, after which we
/// stop reading until they are counted, `WordCount::memoryMax` of words, and an answer made of
/// them. The idle time runs only while we wait for the client, never while it waits
/// for us.
class Connection : public Brelo::FileDescriptorTask {
 public:
  /// Tells `ended` when the client is served, has vanished, was idle for `idleSeconds`, which may
  /// be infinity, or cannot be served. The owner then gives the connection up, from inside the
  /// call if it likes.
  Connection(std::shared_ptr<Brelo::TaskScheduler> scheduler,
             std::shared_ptr<Brelo::TaskGroup> const& counting,
             std::shared_ptr<MemoryBudget> memory, Descriptor socket, std::string const& name,
             double idleSeconds, std::function<void()> ended);
  ~Connection() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

 private:
  template <class Step>
  void endIfFails(Step step);
  void receive();
  void textWorkedOff();
  void sendAnswer();
  void idle();
  void waitForClient() { idle_->scheduleTaskDelay(idleSeconds_); }

  Descriptor socket_;
  double idleSeconds_;
  std::function<void()> ended_;
  std::shared_ptr<CountTask> count_;
  std::shared_ptr<Timeout> idle_;
  bool textComplete_ = false;
  std::string answer_;
  std::size_t sent_ = 0;  // of the answer
};

}  // namespace Wordd
