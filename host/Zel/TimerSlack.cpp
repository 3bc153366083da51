#include "Zel/internal/TimerSlack.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace Zel {
namespace {

constexpr long none = 1;         // in nanoseconds; 0 would stand for the thread's initial one
thread_local long ownSlack = 0;  // while it is taken off

long slack() {
  return syscall(SYS_prctl, PR_GET_TIMERSLACK, 0, 0, 0, 0);
}

bool slackIs(long nanoseconds) {
  return syscall(SYS_prctl, PR_SET_TIMERSLACK, nanoseconds, 0, 0, 0) == 0;
}

}  // namespace

void TimerSlack::tryToTakeOff() {
  asked_ = true;
  long const own = slack();
  if (own <= none || !slackIs(none)) return;
  ownSlack = own;
  taken_ = true;
}

void TimerSlack::giveBack() {
  long const own = std::exchange(ownSlack, 0);
  if (own != 0 && slack() == none) slackIs(own);
}

}  // namespace Zel
