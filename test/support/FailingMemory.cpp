#include "support/FailingMemory.h"

#include <event2/event.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local unsigned long untilFailure = 0;  // 0 for never
thread_local bool hasFailed = false;
thread_local std::size_t largest = 0;
std::atomic<std::size_t> live{0};

bool fails() {
  if (untilFailure == 0 || --untilFailure != 0) return false;
  hasFailed = true;
  return true;
}

void* take(std::size_t size) {
  if (fails()) return nullptr;
  largest = std::max(largest, size);
  void* const memory = std::malloc(size);
  live += malloc_usable_size(memory);
  return memory;
}

void* takeAnew(void* memory, std::size_t size) {
  if (fails()) return nullptr;
  live -= malloc_usable_size(memory);
  void* const moved = std::realloc(memory, size);
  live += malloc_usable_size(moved);
  return moved;
}

void give(void* memory) {
  live -= malloc_usable_size(memory);
  std::free(memory);
}

// At load, before libevent has allocated anything.
bool const given = [] {
  event_set_mem_functions(take, takeAnew, give);
  return true;
}();

}  // namespace

// Out of line, since the compiler would take an inlined free() for a mismatch. All forms are here,
// since sanitizers bring their own: memory goes back the way it came.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* const memory = take(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  return take(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  give(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  give(memory);
}

namespace BreloTest {

FailingMemory::FailingMemory(unsigned long nth) {
  hasFailed = false;
  untilFailure = nth;
}

FailingMemory::~FailingMemory() {
  untilFailure = 0;
}

bool FailingMemory::failed() const {
  return hasFailed;
}

std::size_t takeLargestBlock() {
  return std::exchange(largest, 0);
}

std::size_t liveBytes() {
  return live;
}

}  // namespace BreloTest
