#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <boost/circular_buffer.hpp>
#include <mutex>

#include "Brelo/Assert.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Locking.h"

namespace Brelo {

namespace {

constexpr unsigned defaultCapacity = 100;

using Guard = std::lock_guard<Locking::Lock>;

struct Records {
  Locking::Lock lock;
  boost::circular_buffer<TrackedBacktrace> buffer;
};

// Never destroyed: threads throw after the static objects have gone, too.
Records& records() {
  static Records& instance = []() -> Records& {
    // A child must not inherit the lock from a thread that it does not have.
    ::pthread_atfork([] { records().lock.lock(); }, [] { records().lock.unlock(); },
                     [] { records().lock.unlock(); });
    return *new Records;
  }();
  return instance;
}

// Ahead of the fork handlers of those who throw under a lock, so that theirs is never waited for
// with this one held.
[[maybe_unused]] Records& registeredAtLoad = records();

std::atomic<bool> trackerEnabled{false};

}  // namespace

std::string TrackedBacktrace::toString() const {
  return fmt::format("Exception message:{}\n{}", message_, backtrace_.pretty());
}

bool BacktraceTracker::enabled() {
  return trackerEnabled;
}

void BacktraceTracker::enabledIs(bool enabled) noexcept {
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  if (enabled) {
    if (buffer.capacity() == 0) buffer.set_capacity(defaultCapacity);
  } else if (buffer.empty()) {
    buffer.set_capacity(0);
  }
  trackerEnabled = enabled;
}

unsigned BacktraceTracker::capacity() {
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  return static_cast<unsigned>(buffer.capacity());
}

void BacktraceTracker::capacityIs(unsigned capacity) {
  if (!enabled()) BRELO_FAIL(nullptr, "User must enable the tracker to set the capacity.");
  if (capacity == 0) BRELO_FAIL(nullptr, "Cannot set a capacity of 0, use clear() instead.");
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  if (capacity == buffer.capacity()) return;
  boost::circular_buffer<TrackedBacktrace> resized(capacity);
  auto const kept = static_cast<std::ptrdiff_t>(std::min<std::size_t>(capacity, buffer.size()));
  resized.insert(resized.end(), buffer.end() - kept, buffer.end());
  buffer.swap(resized);
}

void BacktraceTracker::backtraceIs(std::string const& message, Backtrace const& backtrace) {
  if (!enabled()) return;
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  buffer.push_back(TrackedBacktrace(message, backtrace));
}

void BacktraceTracker::backtraceIs(std::string const& message) {
  backtraceIs(message, Backtrace(true));
}

std::vector<TrackedBacktrace> BacktraceTracker::tracked() noexcept {
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  return {buffer.begin(), buffer.end()};
}

void BacktraceTracker::clear() {
  auto& [lock, buffer] = records();
  Guard const guard(lock);
  buffer.clear();
  if (!enabled()) buffer.set_capacity(0);
}

// Without the lock: the look-up of a symbol waits for a plug-in that is being loaded, which may
// throw and wait for the lock.
void BacktraceTracker::printAll(std::ostream& stream) noexcept {
  for (TrackedBacktrace const& entry : tracked())
    stream << entry.toString() << "\n";
  stream.flush();
}

}  // namespace Brelo
