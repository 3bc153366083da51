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

Locking::Lock trackerLock;
boost::circular_buffer<TrackedBacktrace> buffer;
std::atomic<bool> trackerEnabled{false};

}  // namespace

std::string TrackedBacktrace::toString() const {
  return fmt::format("Exception message:{}\n{}", message_, backtrace_.pretty());
}

bool BacktraceTracker::enabled() {
  return trackerEnabled;
}

void BacktraceTracker::enabledIs(bool enabled) noexcept {
  Guard const guard(trackerLock);
  if (enabled) {
    if (buffer.capacity() == 0) buffer.set_capacity(defaultCapacity);
  } else if (buffer.empty()) {
    buffer.set_capacity(0);
  }
  trackerEnabled = enabled;
}

unsigned BacktraceTracker::capacity() {
  Guard const guard(trackerLock);
  return static_cast<unsigned>(buffer.capacity());
}

void BacktraceTracker::capacityIs(unsigned capacity) {
  if (!enabled()) BRELO_FAIL(nullptr, "User must enable the tracker to set the capacity.");
  if (capacity == 0) BRELO_FAIL(nullptr, "Cannot set a capacity of 0, use clear() instead.");
  Guard const guard(trackerLock);
  if (capacity == buffer.capacity()) return;
  boost::circular_buffer<TrackedBacktrace> resized(capacity);
  auto const kept = static_cast<std::ptrdiff_t>(std::min<std::size_t>(capacity, buffer.size()));
  resized.insert(resized.end(), buffer.end() - kept, buffer.end());
  buffer.swap(resized);
}

void BacktraceTracker::backtraceIs(std::string const& message, Backtrace const& backtrace) {
  if (!enabled()) return;
  Guard const guard(trackerLock);
  buffer.push_back(TrackedBacktrace(message, backtrace));
}

void BacktraceTracker::backtraceIs(std::string const& message) {
  backtraceIs(message, Backtrace(true));
}

std::vector<TrackedBacktrace> BacktraceTracker::tracked() noexcept {
  Guard const guard(trackerLock);
  return {buffer.begin(), buffer.end()};
}

void BacktraceTracker::clear() {
  Guard const guard(trackerLock);
  buffer.clear();
  if (!enabled()) buffer.set_capacity(0);
}

void BacktraceTracker::printAll(std::ostream& stream) noexcept {
  Guard const guard(trackerLock);
  for (TrackedBacktrace const& entry : buffer)
    stream << entry.toString() << "\n";
  stream.flush();
}

}  // namespace Brelo
