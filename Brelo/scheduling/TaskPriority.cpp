#include "Brelo/TaskPriority.h"

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

char const* TaskPriority::toStrep() const {
  static constexpr char const* names[] = {"absolute", "high",     "normal",
                                          "low",      "scavenge", "oneBeyondLast"};
  BRELO_SCHEDULER_ASSERT(value_ <= 5, "unexpected priority value ", unsigned{value_});
  return names[value_];
}

char TaskPriority::oneChar() const {
  BRELO_SCHEDULER_ASSERT(value_ <= 5, "unexpected priority ", unsigned{value_});
  return "AHNLS-"[value_];
}

std::ostream& operator<<(std::ostream& stream, TaskPriority priority) {
  return stream << fmt::format("{}", priority);
}

fmt::format_context::iterator formatValue(TaskPriority priority, fmt::format_context& context) {
  if (!priority.isLevel()) {
    return fmt::format_to(context.out(), "invalidPriority={}", unsigned{priority.value()});
  }
  return fmt::format_to(context.out(), "{}", priority.toStrep());
}

}  // namespace Brelo
