#include "Brelo/Time.h"

#include "Zel/System.h"

namespace Brelo {

double time() {
  return Zel::System::currentTime();
}

double timeAtMonotonic(std::int64_t nanoseconds) {
  return Zel::System::timeAtMonotonic(nanoseconds);
}

}  // namespace Brelo
