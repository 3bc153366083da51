#pragma once

/// Memory that runs out on purpose, for the whole program: `malloc`, `calloc` and `realloc` are
/// this folder's, and so all that stands on them is, `operator new` and libevent's memory included.

namespace Faults {

/// Makes the `nth` allocation of this thread from now on fail, counted from 1; 0 for none. Takes
/// up the count anew.
void failAllocation(unsigned long nth);

/// Since the last call of `failAllocation`.
unsigned long allocations();

/// Allocations are neither counted nor failed while one is alive: for the sweep's own checks.
class Uncounted {
 public:
  Uncounted();
  Uncounted(Uncounted const&) = delete;
  Uncounted& operator=(Uncounted const&) = delete;
  ~Uncounted();
};

}  // namespace Faults
