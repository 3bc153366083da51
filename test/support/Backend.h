#pragma once

#include <gtest/gtest.h>

#include <ostream>

#include "Brelo/LibeventFactory.h"
#include "support/BackendList.h"

namespace BreloTest {

inline std::ostream& operator<<(std::ostream& stream, Backend backend) {
  return stream << toString(backend);
}

/// A suite that runs each of its tests on all backends: `TEST_P(Suite, Name) { run([&] {...}); }`
/// with `INSTANTIATE_BOTH_BACKENDS(Suite)`.
class OnBothBackends : public testing::TestWithParam<Backend> {
 protected:
  template <class Body>
  void run(Body body) {
    onBackend(GetParam(), body);
  }
};

}  // namespace BreloTest

#define INSTANTIATE_BOTH_BACKENDS(suite)                                            \
  INSTANTIATE_TEST_SUITE_P(Backends, suite, testing::ValuesIn(BreloTest::backends), \
                           [](auto const& backend) { return toString(backend.param); })
