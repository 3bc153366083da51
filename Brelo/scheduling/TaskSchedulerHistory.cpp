#include "Brelo/TaskSchedulerHistory.h"

#include <boost/circular_buffer.hpp>
#include <chrono>

#include "Brelo/TaskBase.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

constexpr char const* eventTypeNames[] = {
    "schedule",
    "unschedule",
    "run start",
    "run end",
    "timerStart",
    "timerStop",
    "suspendOn",
    "suspendOff",
    "scheduleSus",
    "frcYieldOn",
    "frcYieldOff",
    "idle",
    "busy",
    "create",
    "delete",
    "fdReadable",
    "fdWritable",
    "schedulerIdle",
    "schedulerRunnable",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
};
constexpr unsigned eventTypeCount = std::size(eventTypeNames);

bool eventNeedTask(TaskSchedulerEventType type) {
  BRELO_SCHEDULER_ASSERT(static_cast<unsigned>(type) < eventTypeCount,
                         "unexpected eventType=", type);
  return type < TaskSchedulerEventType::schedulerIdle;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, TaskSchedulerEventType type) {
  return stream << static_cast<unsigned>(type);
}

TaskSchedulerHistory::Event::Event(TaskTimePoint const& time, TaskSchedulerEventType type,
                                   _TaskBase const& task)
    : eventType_(type), eventTime_(time), eventId_(task.taskHistoryName()) {
  BRELO_SCHEDULER_ASSERT(eventNeedTask(type), "EventType: ", type);
}

TaskSchedulerHistory::Event::Event(TaskTimePoint const& time, TaskSchedulerEventType type,
                                   TaskScheduler const& scheduler)
    : eventType_(type), eventTime_(time), eventId_(scheduler.schedulerNameRef()) {
  BRELO_SCHEDULER_ASSERT(!eventNeedTask(type), "EventType: ", type);
}

std::string TaskSchedulerHistory::Event::eventTypeDisplay() const {
  BRELO_SCHEDULER_ASSERT(static_cast<unsigned>(eventType_) < eventTypeCount,
                         "unexpected eventType ", eventType_);
  return eventTypeNames[static_cast<unsigned>(eventType_)];
}

std::string TaskSchedulerHistory::Event::display() const {
  return fmt::format("{:<12} {}", eventTypeDisplay(), eventId_.string());
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned capacity)
    : events_(std::make_unique<Ring>(capacity)) {}

TaskSchedulerHistory::~TaskSchedulerHistory() = default;

[[gnu::always_inline]] inline void TaskSchedulerHistory::record(TaskTimePoint const& time,
                                                                TaskSchedulerEventType type,
                                                                ConstStringRef id) {
  latestTime_ = time;
  events_->push_front(Event(time, type, std::move(id)));
  ++recorded_;
  if (!endedNames_.empty()) releaseOverwritten();
}

// A subject of another tree hands its name over to that tree's history.
void TaskSchedulerHistory::insert(TaskTimePoint const& time, TaskSchedulerEventType type,
                                  _TaskBase const& task) {
  BRELO_SCHEDULER_ASSERT(eventNeedTask(type), "EventType: ", type);
  auto const& id = task.taskHistoryName();
  record(time, type, &task.taskScheduler()->history() == this ? id.uncounted() : id);
}

void TaskSchedulerHistory::insert(TaskTimePoint const& time, TaskSchedulerEventType type,
                                  TaskScheduler const& scheduler) {
  BRELO_SCHEDULER_ASSERT(!eventNeedTask(type), "EventType: ", type);
  auto const& id = scheduler.schedulerNameRef();
  record(time, type, &scheduler.history() == this ? id.uncounted() : id);
}

void TaskSchedulerHistory::insertOwn(TaskTimePoint const& time, TaskSchedulerEventType type,
                                     ConstStringRef const& id) {
  record(time, type, id.uncounted());
}

void TaskSchedulerHistory::nameEnded(ConstStringRef name) noexcept {
  if (!name.isNull() && !events_->empty()) endedNames_.keep(std::move(name), recorded_);
}

void TaskSchedulerHistory::releaseOverwritten() noexcept {
  if (recorded_ >= events_->capacity()) endedNames_.release(recorded_ - events_->capacity());
}

unsigned TaskSchedulerHistory::capacity() const {
  return static_cast<unsigned>(events_->capacity());
}

void TaskSchedulerHistory::capacityIs(unsigned capacity) {
  if (capacity == this->capacity()) return;
  events_->set_capacity(capacity);
  releaseOverwritten();
}

void TaskSchedulerHistory::clear() {
  events_->clear();
  endedNames_.releaseAll();
}

}  // namespace Brelo
