#pragma once

#include <sys/epoll.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "Zel/AskLater.h"
#include "Zel/FileDescriptor.h"
#include "Zel/List.h"
#include "Zel/internal/EpollNow.h"

namespace Zel {

/// The descriptor numbers that are watched, and the epoll set that watches them.
///
/// One in the process, on the thread that runs the loop. Refers to the `FileDescriptor`s
/// bound to each number without owning them. The epoll set is made at the first need of it,
/// by a forked child once more. Operations that return an int return an errno, or 0.
class DescriptorSet {
 public:
  static constexpr std::int64_t forEver = -1;

  /// For a descriptor that is bound to this number next. The one operation that takes memory.
  void makeRoomFor(int number);
  /// The descriptor's number is taken to be open, and there is room for it. After an error it is
  /// not bound.
  int bind(FileDescriptor& descriptor);
  /// Forgets the number at once, since it may be closed next.
  void unbind(FileDescriptor& descriptor) noexcept;
  /// A bound descriptor wants more than before, or less, which is in force at the next look. One
  /// that turns off and on again in a pass costs no system call, and one that does so in the course
  /// of several, after each report, costs one.
  int wantsMore(FileDescriptor const& descriptor);
  /// A bound descriptor wants reads again; see `FileDescriptor::notifyOnReadableAgain`.
  int wantsAgain(FileDescriptor const& descriptor, unsigned passes);
  void wantsLess(FileDescriptor const& descriptor);

  /// Something can become ready. Exact after `prepare`, until a wish changes.
  bool watching() const { return polled_ != 0 || !alwaysReady_.empty(); }
  /// A look would not wait.
  bool isReady() const { return !alwaysReady_.empty(); }
  /// Calls `visit` with each descriptor that asks for something, by number.
  template <class Visit>
  void forEachWatched(Visit const& visit) {
    for (int number = 0; number < numbers(); ++number) {
      forEach(watch(number).descriptors, [&](FileDescriptor& descriptor) {
        if (descriptor.events() != 0) visit(descriptor);
      });
    }
  }
  /// How many looks there have been.
  std::uint64_t looks() const { return looks_; }

  /// A look is `prepare` and then `poll`, or `wait` and `sift`. `wait`, the only one that may
  /// block, touches nothing but the epoll set; it waits for so many nanoseconds, and may end early
  /// with nothing found.
  void prepare();
  void poll() {
    if (polled_ != 0) note(epollNow(epoll_, found_.data(), capacity()));
    if (count_ != 0 || isReady()) sift();
  }
  void wait(std::int64_t nanoseconds);
  void sift();
  /// After `prepare`, when the look is to wait: it ends at once if something was left unread.
  void askAfterUnread();

  /// The latest look has found something that has not been told.
  bool found() const { return told_ != count_; }
  /// Tells what the latest look has found, each once, except to what has been turned on since. An
  /// exception leaves the rest found, and a call inside another one takes over from it.
  void deliver();

  /// In a forked child: gives up the epoll set, which is still the parent's, too.
  void forked() noexcept;

 private:
  /// Where the watch on a number is.
  enum class Place : std::uint8_t {
    none,
    byLevel,      ///< in the epoll set, which reports it as long as it is ready
    once,         ///< in the epoll set, which reports it a single time
    reported,     ///< in the epoll set, which has done so and keeps silent
    byEdge,       ///< in the epoll set, which reports what comes
    muted,        ///< in the epoll set, which does so, though nobody wants to hear of it
    alwaysReady,  ///< not in the epoll set, since it cannot be polled
  };

  struct Watch {
    ListNode<FileDescriptor> descriptors;
    std::uint32_t events = 0;      ///< in force
    std::uint32_t generation = 0;  ///< of its place in the epoll set
    int nextUnsettled = -1;
    Place place = Place::none;
    Place style = Place::byLevel;  ///< of the three reporting ones, that in which it is turned on
    std::uint8_t reports = 0;      ///< by level, since it was turned on; counted as far as two
    std::uint8_t edgesBarred = 0;  ///< so many times more it is not watched by edges
    bool pollable = true;          ///< as far as is known since it was bound
    bool unsettled = false;        ///< `events` may not be what is wanted
    bool unread = false;           ///< turned on again, by edges, and not reported since
  };

  // Watches never move, and are found without a division.
  static constexpr unsigned pageBits = 6;
  static constexpr unsigned pageMask = (1U << pageBits) - 1;
  using Page = std::array<Watch, pageMask + 1>;

  Watch& watch(int number) {
    auto const index = static_cast<unsigned>(number);
    return (*pages_[index >> pageBits])[index & pageMask];
  }
  int numbers() const { return static_cast<int>(pages_.size() << pageBits); }  ///< with room
  std::uint32_t wanted(int number);
  /// `anew`: what the set has for the number may be another file's of an earlier time.
  int install(int number, std::uint32_t events, bool anew = false);
  int force(int number, std::uint32_t events);
  void withdraw(int number) noexcept;
  int control(int operation, int number, std::uint32_t events) noexcept;
  void record(int number, std::uint32_t events, Place place);
  void settleLater(int number) noexcept;
  int settle(int number);
  void askAfter(int& number);
  bool isStale(epoll_event const& event);
  void noteReport(int number);
  void unmute(int number) noexcept;
  static bool isSilent(Watch const& watched) {
    return watched.place == Place::reported || watched.place == Place::muted;
  }
  /// How much a look may find in the epoll set: half at least, and room for the others.
  int capacity() const {
    constexpr std::size_t most = std::tuple_size_v<decltype(found_)>;
    return static_cast<int>(most - std::min(alwaysReady_.size(), most / 2));
  }
  void note(int count) {
    if (count < 0) return noteError();
    count_ = static_cast<std::size_t>(count);
  }
  static void noteError();
  int renew();
  int waitInSet(epoll_event* events, int capacity, timespec const* limit);

  int epoll_ = -1;
  bool nanoseconds_ = true;  ///< the kernel, or who guards it, allows waits in nanoseconds
  bool stale_ = false;       ///< the epoll set reports what cannot be taken out of it
  std::uint64_t looks_ = 0;
  std::size_t polled_ = 0;                    ///< numbers in force in the epoll set
  std::vector<std::unique_ptr<Page>> pages_;  ///< of watches, by number
  std::vector<int> alwaysReady_;              ///< numbers
  std::size_t turn_ = 0;                      ///< among `alwaysReady_`
  int firstUnsettled_ = -1;                   ///< a number, the others behind it
  AskLater later_;                            ///< the numbers that are unread
  int asked_ = -1;                            ///< a number that the present look asks after
  std::array<epoll_event, 128> found_;
  std::size_t count_ = 0;  ///< of what was found
  std::size_t told_ = 0;   ///< of these
};

DescriptorSet& descriptorSet();

}  // namespace Zel
