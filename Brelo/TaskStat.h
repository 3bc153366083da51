#pragma once

#include <cstdint>
#include <string>

#include "Brelo/ConstStringCache.h"
#include "Brelo/Export.h"
#include "Brelo/TaskKey.h"
#include "Brelo/TaskPriority.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

/// A 32-bit figure that may never have been set. A value of 0xFFFFFFFF is stored as 0xFFFFFFFE.
class TaskMaybeU32 {
 public:
  /// Never set.
  constexpr TaskMaybeU32() = default;
  /// Set.
  constexpr explicit TaskMaybeU32(std::uint32_t value)
      : value_(value == neverSet ? neverSet - 1 : value) {}

  constexpr bool isSet() const { return value_ != neverSet; }  ///< also to zero
  /// 0 if never set.
  constexpr std::uint32_t value() const { return isSet() ? value_ : 0; }

  /// Never set is equal to never set, and to no value.
  /// @{
  friend constexpr bool operator==(TaskMaybeU32 a, TaskMaybeU32 b) { return a.value_ == b.value_; }
  friend constexpr bool operator!=(TaskMaybeU32 a, TaskMaybeU32 b) { return a.value_ != b.value_; }
  /// @}

 private:
  static constexpr std::uint32_t neverSet = 0xFFFFFFFF;
  std::uint32_t value_ = neverSet;
};

/// How far a run went beyond its quantum, as the two counts of violations have it.
enum class TaskQuantumViolation : std::uint8_t {
  none,
  of200,  ///< at least two quanta and less than five
  of500,  ///< at least five
};

/// Of a run that has used so much. A quantum of 0 is never violated.
constexpr TaskQuantumViolation taskQuantumViolation(TaskTimeDuration used,
                                                    TaskTimeDuration quantum) {
  // Divided rather than multiplied, so that no quantum is too large.
  if (quantum.count() == 0 || used.count() / 2 < quantum.count()) return TaskQuantumViolation::none;
  return used.count() / 5 < quantum.count() ? TaskQuantumViolation::of200
                                            : TaskQuantumViolation::of500;
}

/// What a task counts of its runs and its work, and what the reports tell of it. A task updates its
/// own in place; the latency is the time from a run queue to the run.
struct TaskCounters {
  TaskTimeDuration taskLastSchedulingLatency;           ///< the latest
  TaskTimeDuration taskSchedulingLatencyHighWaterMark;  ///< the longest
  TaskTimeDuration taskTotalRunTime;                    ///< of all runs
  TaskTimeDuration taskRunTimeHighWaterMark;            ///< the longest run
  std::uint32_t taskRunCount = 0;                       ///< runs
  std::uint32_t taskQuantumViolation500 = 0;            ///< runs of at least five quanta
  std::uint32_t taskQuantumViolation200 = 0;  ///< runs of at least two and less than five quanta
  float taskWorkCountDecayAvg = 0;            ///< nine tenths old, one tenth the newest report
  std::uint64_t taskWorkCountTotal = 0;       ///< the sum of what taskWorkCountInc was given
  TaskMaybeU32 taskWorkCountHighWaterMark;    ///< the most that taskWorkCountInc was given
  std::uint32_t taskWorkPending = 0;          ///< the latest that taskWorkPendingIs was given
  TaskMaybeU32 taskWorkPendingHighWaterMark;  ///< the most that taskWorkPendingIs was given
};

/// A copy of one task's counters, or the merged counters of ended tasks of one stats name.
///
/// A plain value, apart from the name, whose reference ties it to the thread of its scheduler
/// and must be dropped before the scheduler tree goes. A default record is all zero, its two
/// work marks included, and has a null name.
class BRELO_EXPORT TaskStat : public TaskCounters {
 public:
  /// What a task is and does at the moment, as a byte of bits.
  class TaskStatus {
   public:
    /// The task is a TimerTask; its timer is armed; it is queued; it is amid a run; it is
    /// suspended; it is the parent task of a group. All false at first.
    /// @{
    bool taskTimer() const { return bitmaskHasBitSet(timer); }
    bool taskTimerRunning() const { return bitmaskHasBitSet(timerRunning); }
    bool taskOnRunQueue() const { return bitmaskHasBitSet(onRunQueue); }
    bool taskCurrentlyRunning() const { return bitmaskHasBitSet(currentlyRunning); }
    bool taskSuspended() const { return bitmaskHasBitSet(suspended); }
    bool taskIsTaskGroup() const { return bitmaskHasBitSet(isTaskGroup); }

    void taskTimerIs(bool on) { bitmaskSetBit(timer, on); }
    void taskTimerRunningIs(bool on) { bitmaskSetBit(timerRunning, on); }
    void taskOnRunQueueIs(bool on) { bitmaskSetBit(onRunQueue, on); }
    void taskCurrentlyRunningIs(bool on) { bitmaskSetBit(currentlyRunning, on); }
    void taskSuspendedIs(bool on) { bitmaskSetBit(suspended, on); }
    void taskIsTaskGroupIs(bool on) { bitmaskSetBit(isTaskGroup, on); }
    /// @}

    /// The bits behind these, by a mask of one of them.
    /// @{
    bool bitmaskHasBitSet(unsigned char mask) const { return (bits_ & mask) != 0; }
    void bitmaskSetBit(unsigned char mask, bool on) {
      bits_ = static_cast<unsigned char>(on ? bits_ | mask : bits_ & ~mask);
    }
    /// @}

   private:
    static constexpr unsigned char timer = 1;
    static constexpr unsigned char timerRunning = 2;
    static constexpr unsigned char onRunQueue = 4;
    static constexpr unsigned char currentlyRunning = 8;
    static constexpr unsigned char suspended = 16;
    static constexpr unsigned char isTaskGroup = 32;

    unsigned char bits_ = 0;
  };

  /// All zero.
  TaskStat();
  /// A live task's counters.
  TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, TaskCounters const& counters,
           TaskStatus status);
  /// The same, one by one.
  TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, std::uint32_t runCount,
           TaskTimeDuration totalRunTime, std::uint64_t workCountTotal, float workCountDecayAvg,
           TaskMaybeU32 workCountHighWaterMark, std::uint32_t workPending,
           TaskMaybeU32 workPendingHighWaterMark, std::uint32_t quantumViolation500,
           std::uint32_t quantumViolation200, TaskTimeDuration runTimeHighWaterMark,
           TaskTimeDuration lastSchedulingLatency, TaskTimeDuration schedulingLatencyHighWaterMark,
           TaskStatus status);

  /// Merges a later record of the same name: sums and high-water marks, and the latest of what
  /// is neither. A record of another name is an assertion.
  TaskStat& operator+=(TaskStat const& other);

  /// The task's name, or the stats name of ended tasks.
  /// @{
  std::string taskName() const { return taskName_.string(); }
  ConstStringRef const& taskNameRef() const { return taskName_; }
  void taskNameIs(ConstStringRef const& name) { taskName_ = name; }
  /// @}
  /// The longest run; the latest and the longest time from a run queue to the run.
  /// @{
  TaskTimeDuration taskRunTimeHighWaterMark() const {
    return TaskCounters::taskRunTimeHighWaterMark;
  }
  TaskTimeDuration taskLastSchedulingLatency() const {
    return TaskCounters::taskLastSchedulingLatency;
  }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const {
    return TaskCounters::taskSchedulingLatencyHighWaterMark;
  }
  /// @}

  /// Change one figure.
  /// @{
  void taskRunInc(unsigned count) { taskRunCount += count; }
  void taskTotalRunTimeInc(TaskTimeDuration time) { taskTotalRunTime += time; }
  void taskWorkCountTotalInc(unsigned long count) { taskWorkCountTotal += count; }
  void taskQuantumViolation500Inc(unsigned count) { taskQuantumViolation500 += count; }
  void taskQuantumViolation200Inc(unsigned count) { taskQuantumViolation200 += count; }
  void taskCompletedCountInc(unsigned count) { taskCompletedCount += count; }
  void taskRunTimeHighWaterMarkIs(TaskTimeDuration time) {
    TaskCounters::taskRunTimeHighWaterMark = time;
  }
  void taskLastSchedulingLatencyIs(TaskTimeDuration time) {
    TaskCounters::taskLastSchedulingLatency = time;
  }
  void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration time) {
    TaskCounters::taskSchedulingLatencyHighWaterMark = time;
  }
  void taskCompletedCountIs(unsigned count) { taskCompletedCount = count; }
  void taskStatusIs(TaskStatus status) { taskStatus = status; }
  /// @}

  /// Two characters: "*" running, "S" suspended, "T" or "t" a timer armed or not, else a blank;
  /// then the priority's letter, upper case for a task on a run queue.
  std::string taskStatusString() const;

  TaskKey taskKey;                       ///< which task; that of the first one, if merged
  TaskPriority taskPriority{0};          ///< likewise
  TaskStatus taskStatus;                 ///< as it was
  std::uint32_t taskCompletedCount = 0;  ///< ended tasks merged into this; 0 for a live task

 private:
  ConstStringRef taskName_;
};

}  // namespace Brelo
