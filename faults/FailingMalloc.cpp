#include "FailingMalloc.h"

#include <cerrno>
#include <cstddef>

// The C library's own, under the names that it keeps for who puts something in their place.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

// Of each thread: the C library's resolver of names, on a thread of its own, does not survive what
// is asked of the others.
thread_local unsigned long asked = 0;
thread_local unsigned long failure = 0;  // 0 for never
thread_local int uncounted = 1;          // until the first order

/// Where a debugger stops for the stack of a failure.
[[gnu::noinline]] void refuse() {
  errno = ENOMEM;
}

bool fails() {
  if (uncounted != 0) return false;
  ++asked;
  if (asked != failure) return false;
  refuse();
  return true;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  return fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
  return fails() ? nullptr : __libc_realloc(memory, size);
}
}

namespace Faults {

void failAllocation(unsigned long nth) {
  asked = 0;
  failure = nth;
  uncounted = 0;
}

unsigned long allocations() {
  return asked;
}

Uncounted::Uncounted() {
  ++uncounted;
}

Uncounted::~Uncounted() {
  --uncounted;
}

}  // namespace Faults
