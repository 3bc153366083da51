#include "Brelo/platform/WaitObserver.h"

#include "Brelo/platform/Backend.h"

namespace Brelo::Impl {

class WaitObservers {
 public:
  void add(WaitObserver& observer) {
    observer.next_ = first_;
    first_ = &observer;
    if (observer.next_ == nullptr) Platform::backend().waitsObservedIs(true);
  }
  void remove(WaitObserver& observer) {
    for (WaitObserver** at = &first_; *at != nullptr; at = &(*at)->next_) {
      if (*at != &observer) continue;
      *at = observer.next_;
      if (first_ == nullptr) Platform::backend().waitsObservedIs(false);
      return;
    }
  }
  void tell(std::int64_t nanoseconds) const {
    for (WaitObserver* at = first_; at != nullptr; at = at->next_)
      at->loopWaited(nanoseconds);
  }

 private:
  WaitObserver* first_ = nullptr;
};

namespace {

thread_local WaitObservers observers;

}  // namespace

void waitObserverAdd(WaitObserver& observer) {
  observers.add(observer);
}

void waitObserverRemove(WaitObserver& observer) {
  observers.remove(observer);
}

void tellWait(std::int64_t nanoseconds) {
  observers.tell(nanoseconds);
}

}  // namespace Brelo::Impl
