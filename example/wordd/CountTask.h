#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Brelo/Task.h"
#include "Brelo/TaskGroup.h"
#include "WordCount.h"

namespace Wordd {

/// Counts the words of one client, at low priority and in slices of its quantum.
///
/// Holds the bytes that are still to be counted, of which there is room for `queueMax`: who fills
/// it stops at `room() == 0` and goes on when told that the queue has been worked off.
class CountTask : public Brelo::Task {
 public:
  static constexpr std::size_t queueMax = 64 << 10;

  /// Tells `workedOff` at the end of each run that leaves nothing to count. It may give up the
  /// last owner of the task.
  CountTask(std::shared_ptr<Brelo::TaskGroup> const& group, std::string name,
            std::shared_ptr<MemoryBudget> memory, std::function<void()> workedOff);

  /// At most `room()` bytes.
  void append(std::string_view bytes);
  std::size_t room() const { return queueMax - queue_.size(); }
  /// See `WordCount::answer`.
  std::string answer() { return words_.answer(); }

  void taskExecute() override;

 private:
  WordCount words_;
  std::string queue_;
  std::size_t counted_ = 0;  // of the queue, from its front
  std::function<void()> workedOff_;
};

}  // namespace Wordd
