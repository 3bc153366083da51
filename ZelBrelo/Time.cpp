#include "Brelo/Time.h"

#include "Zel/System.h"

namespace Brelo {

double time() {
  return Zel::System::currentTime();
}

}  // namespace Brelo
