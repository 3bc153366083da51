#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <ostream>
#include <thread>

#include "Brelo/LibeventFactory.h"
#include "Brelo/Thread.h"

namespace BreloTest {

enum class Backend { libevent, host };

inline std::ostream& operator<<(std::ostream& stream, Backend backend) {
  return stream << (backend == Backend::libevent ? "libevent" : "host");
}

/// Runs `body` on a fresh thread of the backend, since a thread's choice is final. What it throws
/// comes out here.
template <class Body>
void onBackend(Backend backend, Body body) {
  std::exception_ptr thrown;
  std::thread([&] {
    if (backend == Backend::libevent) Brelo::useThreadLocalSingletons();
    try {
      body();
    } catch (...) {
      thrown = std::current_exception();
    }
  }).join();
  if (thrown) std::rethrow_exception(thrown);
}

/// A suite that runs each of its tests on both backends: `TEST_P(Suite, Name) { run([&] {...}); }`
/// with `INSTANTIATE_BOTH_BACKENDS(Suite)`.
class OnBothBackends : public testing::TestWithParam<Backend> {
 protected:
  template <class Body>
  void run(Body body) {
    onBackend(GetParam(), body);
  }
};

}  // namespace BreloTest

#define INSTANTIATE_BOTH_BACKENDS(suite)                                                        \
  INSTANTIATE_TEST_SUITE_P(                                                                     \
      Backends, suite, testing::Values(BreloTest::Backend::libevent, BreloTest::Backend::host), \
      [](auto const& backend) { return testing::PrintToString(backend.param); })
