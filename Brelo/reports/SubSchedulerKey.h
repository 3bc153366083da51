#pragma once

#include <string>

#include "Brelo/TaskStat.h"

/// @file
/// How the reports name a group.

namespace Brelo::Impl {

/// The key of a group's scheduler in a document: the parent task's name and address. The record
/// of any other task is an assertion.
std::string subSchedulerKey(TaskStat const& parentTask);

}  // namespace Brelo::Impl
