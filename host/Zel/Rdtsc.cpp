#include "Zel/Rdtsc.h"

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

#include "Zel/internal/SystemClock.h"

namespace Zel::Rdtsc {

std::atomic<std::uint64_t> Impl::ticksIn500Usec = 0;

namespace {

struct Sample {
  std::uint64_t ticks;
  std::int64_t nanos;
};

/// Both clocks at one moment, as closely as a few tries get: a preemption between the reads
/// shows as a wide bracket of ticks, and the narrowest one is taken.
Sample sample() {
  Sample best = {};
  std::uint64_t bestWidth = UINT64_MAX;
  for (int i = 0; i < 5; ++i) {
    std::uint64_t const before = read();
    std::int64_t const nanos = monotonicNanoseconds();
    std::uint64_t const width = read() - before;
    if (width < bestWidth) {
      bestWidth = width;
      best = {before + width / 2, nanos};
    }
  }
  return best;
}

}  // namespace

std::uint64_t Impl::calibrate() {
  constexpr std::int64_t spinNanos = 100'000;
  Sample const begin = sample();
  while (monotonicNanoseconds() - begin.nanos < spinNanos) {
  }
  Sample const end = sample();

  std::uint64_t measured = 1;
  if (end.ticks > begin.ticks) {
    double const ticksPerNano =
        static_cast<double>(end.ticks - begin.ticks) / static_cast<double>(end.nanos - begin.nanos);
    measured += static_cast<std::uint64_t>(ticksPerNano * 500e3);
  }
  // Threads that came here together keep the first result. No lock: a child may be forked amid.
  std::uint64_t kept = 0;
  return ticksIn500Usec.compare_exchange_strong(kept, measured) ? measured : kept;
}

bool isClock() {
  int const file = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                        O_RDONLY | O_CLOEXEC);
  if (file == -1) return false;
  char name[8];
  ssize_t const length = ::read(file, name, sizeof name);
  close(file);
  return length > 0 && std::string_view(name, static_cast<std::size_t>(length)) == "tsc\n";
}

}  // namespace Zel::Rdtsc
