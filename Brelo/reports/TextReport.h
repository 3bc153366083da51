#pragma once

#include <ostream>
#include <vector>

#include "Brelo/TaskSchedulerSnapshot.h"

/// @file
/// The table for people.

namespace Brelo::Impl {

/// Writes the tasks of all these schedulers, the root among them, as one table with a legend; a
/// table of completed tasks if asked for; the history if the root's snapshot has it.
void renderText(std::ostream& stream, std::vector<TaskSchedulerSnapshot> const& schedulers,
                bool showTaskKey, bool includeCompleted);

}  // namespace Brelo::Impl
