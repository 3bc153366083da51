#include <sys/auxv.h>

#include <cstdlib>
#include <iostream>

#include "Brelo/Backtrace.h"
#include "Brelo/Random.h"
#include "Brelo/Util.h"
#include "Zel/System.h"

/// Shows what the library takes from the environment: EnvironmentTest runs it, also with rights
/// that its caller does not have.
int main() {
  auto const util = Brelo::Platform::getDebugHandler("BreloUtil");
  setenv("TZ", "Late24", 1);
  std::cout << "secure:" << (getauxval(AT_SECURE) != 0) << std::endl;
  BRELO_TRACE(*util, 9, nullptr, "fine detail");
  Brelo::HeapChecker::resolveAllocSym(*util);  // traces that there is none
  Brelo::Random::setSeed();
  std::cout << Zel::System::getenv("TRACE").str() << " " << Brelo::waitForDefaultTimeout() << " "
            << Brelo::Backtrace::verbosity() << std::endl;
}
