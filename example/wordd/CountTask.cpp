#include "CountTask.h"

#include <utility>

namespace Wordd {

namespace {

// Some microseconds of work: how often the inner loop asks whether its time is up.
constexpr std::size_t step = 512;

}  // namespace

CountTask::CountTask(std::shared_ptr<Brelo::TaskGroup> const& group, std::string name,
                     std::shared_ptr<MemoryBudget> memory, std::function<void()> workedOff)
    : Task(group, Brelo::TaskPriority::low, std::move(name)),
      words_(std::move(memory)),
      workedOff_(std::move(workedOff)) {
  taskStatsNameIs("count");
}

void CountTask::append(std::string_view bytes) {
  queue_.append(bytes);
  taskWorkPendingIs(static_cast<unsigned>(queue_.size() - counted_));
  scheduleTask();
}

void CountTask::taskExecute() {
  std::size_t const before = counted_;
  do {  // the step before the question: a task that is always told to yield still gets on
    auto const piece = std::string_view(queue_).substr(counted_, step);
    words_.add(piece);
    counted_ += piece.size();
  } while (counted_ < queue_.size() && !taskShouldYield());
  taskWorkCountInc(counted_ - before);
  taskWorkPendingIs(static_cast<unsigned>(queue_.size() - counted_));

  if (counted_ < queue_.size()) return scheduleTask();
  queue_.clear();
  counted_ = 0;
  workedOff_();
}

}  // namespace Wordd
