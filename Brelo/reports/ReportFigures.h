#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/TaskStat.h"

/// @file
/// What the reports make of the figures of a snapshot, one for all of them.

namespace Brelo::Impl {

inline double seconds(TaskTimeDuration duration) {
  return static_cast<double>(duration.count()) / 1e9;
}

/// Cut off, never rounded up.
inline std::int64_t wholeMilliseconds(TaskTimeDuration duration) {
  return static_cast<std::int64_t>(seconds(duration) * 1000.0);
}

/// The figures of one level; zeroes if it is missing.
TaskSchedulerPriorityStats statsOfLevel(TaskSchedulerQueueStats const& stats, TaskPriority level);

/// By descending total run time; equal ones in no particular order.
void sortHeaviestFirst(std::vector<TaskStat const*>& tasks);

/// The key of a group's scheduler in a document: the parent task's name and address. The record
/// of any other task is an assertion.
std::string subSchedulerKey(TaskStat const& parentTask);

}  // namespace Brelo::Impl
