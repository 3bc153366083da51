#pragma once

#include <new>
#include <system_error>
#include <utility>

#include "Brelo/Platform.h"
#include "Scenario.h"

/// How the parts of a Scenario try what may be refused.

namespace Faults {

inline void expect(bool holds, char const* what) {
  if (!holds) throw Wrong(what);
}

/// Once more if it is refused; more than once in a row it may not be.
template <class Operation>
auto Scenario::attempt(Operation operation) {
  for (int left = 2;; --left) {
    try {
      return operation();
    } catch (std::bad_alloc const&) {
      ++refused_;
      if (left == 0) throw;
    } catch (std::system_error const&) {
      ++refused_;
      if (left == 0) throw;
    }
  }
}

template <class Done>
void Scenario::loopUntil(char const* what, Done done) {
  double const start = Brelo::time();
  bool interrupted = false;
  while (!done()) {
    expect(Brelo::time() < start + 5, what);
    attempt([&] {
      // What an exception has left standing goes on at a request.
      if (std::exchange(interrupted, false)) root_->requestSchedulerRun();
      interrupted = true;
      Brelo::Platform::doEventLoop(0.0005);
      interrupted = false;
    });
  }
}

}  // namespace Faults
