#include "Zel/internal/DescriptorSet.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

namespace Zel {
namespace {

constexpr std::int64_t second = 1'000'000'000;
constexpr std::int64_t millisecond = 1'000'000;

}  // namespace

void DescriptorSet::makeRoomFor(int number) {
  while (numbers() <= number)
    pages_.push_back(std::make_unique<Page>());
  auto const room = static_cast<std::size_t>(numbers());
  if (alwaysReady_.capacity() < room) alwaysReady_.reserve(2 * room);
}

int DescriptorSet::bind(FileDescriptor& descriptor) {
  int const number = descriptor.descriptor_;
  descriptor.node_.insertBefore(watch(number).descriptors);

  // Even if nothing new is wanted: the number may have been closed and opened anew under an
  // object that was bound to it before, and the kernel has dropped the watch then.
  watch(number).style = Place::byLevel;
  watch(number).edgesBarred = 0;
  watch(number).pollable = true;
  int error = 0;
  if (std::uint32_t const events = wanted(number); events != 0) {
    error = install(number, events, true);
  } else {
    withdraw(number);
  }
  if (error != 0) descriptor.node_.unlink();
  return error;
}

void DescriptorSet::unbind(FileDescriptor& descriptor) noexcept {
  descriptor.node_.unlink();
  if (wanted(descriptor.descriptor_) == 0) {
    withdraw(descriptor.descriptor_);
  } else {
    settleLater(descriptor.descriptor_);
  }
}

int DescriptorSet::wantsMore(FileDescriptor const& descriptor) {
  int const number = descriptor.descriptor_;
  Watch const& watched = watch(number);
  std::uint32_t const events = wanted(number);
  if ((events & ~watched.events) == 0 && !watched.unread) return 0;
  // Off and on again within the pass of a report: the next look has it by level.
  if (isSilent(watched) && watched.unsettled) return 0;
  return force(number, events);
}

// A watch by edges costs no call when it is turned on again. Whether something was left unread is
// asked later, unless it has been reported by then, as is the rule where a peer sends its next
// request when it has the answer. One of which more is left, or comes, than is read is asked for
// one report at a time for a while.
int DescriptorSet::wantsAgain(FileDescriptor const& descriptor, unsigned passes) {
  int const number = descriptor.descriptor_;
  Watch& watched = watch(number);
  int* const later = later_.placeWithin(passes);
  bool const simple = wanted(number) == EPOLLIN && isSilent(watched);
  if (!simple || later == nullptr) return wantsMore(descriptor);
  if (watched.edgesBarred != 0) {
    --watched.edgesBarred;
    watched.style = Place::once;
  } else if (watched.place == Place::muted) {
    record(number, EPOLLIN, Place::byEdge);
    watched.unread = true;
    *later = number;
    return 0;
  } else {
    watched.style = Place::byEdge;
  }
  return force(number, EPOLLIN);
}

void DescriptorSet::wantsLess(FileDescriptor const& descriptor) {
  settleLater(descriptor.descriptor_);
}

void DescriptorSet::settleLater(int number) noexcept {
  Watch& watched = watch(number);
  if (std::exchange(watched.unsettled, true)) return;
  watched.nextUnsettled = std::exchange(firstUnsettled_, number);
}

// A watch that is turned off before the next look costs a call, and one more when it is turned on
// again. Where that happens after each report, as with a task that waits for its turn, the set is
// asked for one report at a time: it then keeps silent by itself, and turning on is the only call,
// or for what comes only, so that not even that is one. A watch that stays on after a report goes
// by level again.
int DescriptorSet::settle(int number) {
  Watch& watched = watch(number);
  std::uint32_t const events = wanted(number);
  if (events == watched.events) {
    watched.reports = 0;
    return 0;
  }
  if (events == 0) {
    watched.style = watched.reports == 1 ? Place::once : Place::byLevel;
    withdraw(number);
    return 0;
  }
  if (isSilent(watched)) watched.style = Place::byLevel;
  return force(number, events);
}

void DescriptorSet::prepare() {
  while (firstUnsettled_ != -1) {
    if (int const error = settle(firstUnsettled_); error != 0) {
      throw std::system_error(error, std::generic_category(), "failed to watch a descriptor");
    }
    Watch& settled = watch(firstUnsettled_);
    settled.unsettled = false;
    firstUnsettled_ = settled.nextUnsettled;
  }
  if (polled_ != 0 && (epoll_ == -1 || stale_)) {
    if (int const error = renew(); error != 0) {
      throw std::system_error(error, std::generic_category(), "failed to renew the epoll set");
    }
  }
  count_ = told_ = 0;
  ++looks_;
  asked_ = -1;
  askAfter(later_.next());
}

void DescriptorSet::askAfterUnread() {
  for (int& each : later_)
    askAfter(each);
}

void DescriptorSet::askAfter(int& number) {
  if (number == -1) return;
  if (watch(number).unread) {
    if (int const error = force(number, EPOLLIN); error != 0) {
      throw std::system_error(error, std::generic_category(), "failed to ask after a descriptor");
    }
    asked_ = number;
  }
  number = -1;
}

void DescriptorSet::wait(std::int64_t nanoseconds) {
  // The kernel may stretch a wait by a thousandth of its length. Without that it ends just before
  // its time as a rule, and the rest, being short, is waited for precisely.
  if (nanoseconds > millisecond) nanoseconds -= nanoseconds / 1000;
  timespec const limit{nanoseconds / second, nanoseconds % second};
  timespec const* const limitOrNone = nanoseconds == forEver ? nullptr : &limit;
  note(polled_ == 0 ? ppoll(nullptr, 0, limitOrNone, nullptr)
                    : waitInSet(found_.data(), capacity(), limitOrNone));
}

void DescriptorSet::noteError() {
  if (errno == EINTR) return;
  throw std::system_error(errno, std::generic_category(), "failed to wait for descriptors");
}

int DescriptorSet::waitInSet(epoll_event* events, int capacity, timespec const* limit) {
  if (nanoseconds_) {
    int const count = epoll_pwait2(epoll_, events, capacity, limit, nullptr);
    if (count >= 0 || (errno != ENOSYS && errno != EPERM)) return count;
    nanoseconds_ = false;
  }
  std::int64_t milliseconds = -1;
  if (limit != nullptr) {
    milliseconds = limit->tv_sec * 1000 + (limit->tv_nsec + millisecond - 1) / millisecond;
  }
  return epoll_wait(epoll_, events, capacity,
                    static_cast<int>(std::min<std::int64_t>(milliseconds, INT_MAX)));
}

void DescriptorSet::sift() {
  std::size_t const reported = std::exchange(count_, 0);
  for (std::size_t i = 0; i < reported; ++i) {
    epoll_event const event = found_[i];
    auto const number = static_cast<int>(event.data.u64);
    if (isStale(event)) {
      stale_ = true;
    } else if (watch(number).place == Place::muted) {
      unmute(number);
    } else {
      noteReport(number);
      found_[count_++] = event;
    }
  }

  std::size_t const room = found_.size() - count_;
  for (std::size_t left = std::min(alwaysReady_.size(), room); left != 0; --left) {
    turn_ = (turn_ + 1) % alwaysReady_.size();
    epoll_event& event = found_[count_++];
    event.events = EPOLLIN | EPOLLOUT;
    event.data.u64 = static_cast<std::uint32_t>(alwaysReady_[turn_]);
  }
}

/// A number that was closed while a duplicate keeps its file open stays in the epoll set, out of
/// reach: only a new set is rid of it.
bool DescriptorSet::isStale(epoll_event const& event) {
  Watch const& watched = watch(static_cast<int>(event.data.u64));
  return (watched.events == 0 && watched.place != Place::muted) ||
         watched.place == Place::alwaysReady ||
         watched.generation != static_cast<std::uint32_t>(event.data.u64 >> 32);
}

void DescriptorSet::noteReport(int number) {
  Watch& watched = watch(number);
  if (watched.place == Place::once) {
    record(number, 0, Place::reported);
    settleLater(number);
  } else if (watched.place == Place::byEdge) {
    if (number == asked_) watched.edgesBarred = AskLater::barredTimes;
    record(number, 0, Place::muted);
    settleLater(number);
  } else if (watched.reports < 2) {
    ++watched.reports;
  }
}

/// A peer that goes on sending while nobody wants to hear of it would be reported at each look.
void DescriptorSet::unmute(int number) noexcept {
  Watch& watched = watch(number);
  watched.edgesBarred = AskLater::barredTimes;
  watched.style = Place::once;
  withdraw(number);
}

void DescriptorSet::deliver() {
  while (found()) {
    epoll_event const event = found_[told_++];
    std::uint64_t const look = looks_;
    forEach(watch(static_cast<int>(event.data.u64)).descriptors, [&](FileDescriptor& descriptor) {
      if (look != looks_) return;  // a handler has run the loop, which has looked anew
      Ptr<FileDescriptor> const alive(&descriptor);
      descriptor.readyIs(event.events, look);
    });
  }
}

void DescriptorSet::forked() noexcept {
  if (epoll_ != -1) close(epoll_);
  epoll_ = -1;
}

std::uint32_t DescriptorSet::wanted(int number) {
  auto& head = watch(number).descriptors;
  std::uint32_t events = 0;
  for (auto* node = head.next(); node != &head; node = node->next()) {
    if (node->owner() != nullptr) events |= node->owner()->events();
  }
  return events;
}

int DescriptorSet::install(int number, std::uint32_t events, bool anew) {
  if (epoll_ == -1) {
    if (int const error = renew(); error != 0) return error;
  }
  Watch& watched = watch(number);
  if (!watched.pollable) {
    record(number, events, Place::alwaysReady);
    return 0;
  }
  std::uint32_t mode = 0;
  if (watched.style == Place::once) mode = EPOLLONESHOT;
  if (watched.style == Place::byEdge) mode = EPOLLET;
  bool const isIn = watched.place != Place::none && watched.place != Place::alwaysReady;
  int error = isIn && !anew ? control(EPOLL_CTL_MOD, number, events | mode) : ENOENT;
  bool lost = error == ENOENT;
  if (lost) {
    ++watched.generation;
    error = control(EPOLL_CTL_ADD, number, events | mode);
    // A file that went to another number and came back has kept its place.
    lost = error != EEXIST;
    if (!lost) error = control(EPOLL_CTL_MOD, number, events | mode);
  }
  if (error == EPERM) {
    watched.pollable = false;
    record(number, events, Place::alwaysReady);
    return 0;
  }
  if (error == 0) {
    record(number, events, watched.style);
  } else if (lost) {
    record(number, 0, Place::none);
  }
  return error;
}

/// One that was closed under its watcher is ready, so that the watcher meets the error at its own
/// read or write.
int DescriptorSet::force(int number, std::uint32_t events) {
  int const error = install(number, events);
  if (error != EBADF) return error;
  record(number, events, Place::alwaysReady);
  return 0;
}

void DescriptorSet::withdraw(int number) noexcept {
  Watch const& watched = watch(number);
  if (watched.place == Place::none) return;
  // Fails for a number that is closed or another file's by now, which is as good.
  if (watched.place != Place::alwaysReady) control(EPOLL_CTL_DEL, number, 0);
  record(number, 0, Place::none);
}

int DescriptorSet::control(int operation, int number, std::uint32_t events) noexcept {
  epoll_event event{};
  event.events = events;
  event.data.u64 =
      std::uint64_t{watch(number).generation} << 32 | static_cast<std::uint32_t>(number);
  return epoll_ctl(epoll_, operation, number, &event) == 0 ? 0 : errno;
}

void DescriptorSet::record(int number, std::uint32_t events, Place place) {
  Watch& watched = watch(number);
  bool const was = watched.place == Place::alwaysReady;
  bool const is = place == Place::alwaysReady;
  if (is && !was) alwaysReady_.push_back(number);
  if (was && !is) alwaysReady_.erase(std::find(alwaysReady_.begin(), alwaysReady_.end(), number));
  if (watched.events != 0 && !was) --polled_;
  if (events != 0 && !is) ++polled_;
  watched.events = events;
  watched.place = place;
  watched.reports = 0;
  watched.unread = false;
}

int DescriptorSet::renew() {
  forked();
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ == -1) return errno;
  stale_ = false;

  int failed = 0;
  for (int number = 0; number < numbers(); ++number) {
    Place const place = watch(number).place;
    if (place == Place::none || place == Place::alwaysReady) continue;
    record(number, 0, Place::none);
    std::uint32_t const events = wanted(number);
    int const error = events != 0 ? install(number, events) : 0;
    if (error == 0 || error == EBADF) continue;
    settleLater(number);  // tries again
    failed = error;
  }
  return failed;
}

}  // namespace Zel
