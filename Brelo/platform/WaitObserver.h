#pragma once

#include <cstdint>

/// @file
/// Who is told how long a thread's loop waits.

namespace Brelo::Impl {

/// Is told of each wait of the calling thread's loop, and of what the host's virtual time skips, in
/// nanoseconds. It may not add or remove any from there.
class WaitObserver {
 public:
  virtual ~WaitObserver() = default;
  virtual void loopWaited(std::int64_t nanoseconds) noexcept = 0;

 private:
  friend class WaitObservers;
  WaitObserver* next_ = nullptr;
};

/// For the calling thread and its backend. One that belongs to a thread that has ended is no longer
/// there to be removed.
/// @{
void waitObserverAdd(WaitObserver& observer);
void waitObserverRemove(WaitObserver& observer);
/// @}

/// Tells the calling thread's observers, for the backends.
void tellWait(std::int64_t nanoseconds);

}  // namespace Brelo::Impl
