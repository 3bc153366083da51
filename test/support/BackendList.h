#pragma once

#include <array>
#include <exception>
#include <string>
#include <thread>

#include "Brelo/Thread.h"

namespace BreloTest {

/// The backends that the tests, the soak and the benchmarks run on.
/// @{
enum class Backend { libevent, host };
inline constexpr std::array<Backend, 2> backends{Backend::libevent, Backend::host};
/// @}

inline std::string toString(Backend backend) {
  return backend == Backend::libevent ? "libevent" : "host";
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

}  // namespace BreloTest
