#pragma once

#include <cstddef>

/// Memory that runs out on purpose. A test program that is made with `MEMORY` among the arguments
/// of `brelo_tests` has its `operator new` and libevent's memory from here.

namespace BreloTest {

/// Makes one allocation of this thread fail, the `nth` from now on, counted from 1; none if nobody
/// makes so many. One at a time alive on a thread.
class FailingMemory {
 public:
  explicit FailingMemory(unsigned long nth);
  FailingMemory(FailingMemory const&) = delete;
  FailingMemory& operator=(FailingMemory const&) = delete;
  ~FailingMemory();

  /// That allocation was asked for.
  bool failed() const;
};

/// The largest block asked for on this thread since the last call.
std::size_t takeLargestBlock();

/// What is allocated and not freed, of the whole program.
std::size_t liveBytes();

}  // namespace BreloTest
