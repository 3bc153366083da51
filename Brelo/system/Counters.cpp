#include "Brelo/Counters.h"

namespace Brelo {

Counters::Counters(char const* name)
    : impl_(static_cast<CountersPlugin*>(Platform::loadPlugin("TallyCountersPlugin"))) {
  if (impl_ != nullptr && name != nullptr) impl_->groupIs(name);
}

unsigned long* Counters::counter(char const* name, unsigned long* fallback) {
  static unsigned long dummy;
  if (impl_ != nullptr) return impl_->counter(name, fallback);
  return fallback == nullptr ? &dummy : fallback;
}

}  // namespace Brelo
