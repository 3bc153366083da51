// Walks of stacks that are not as usual: under a signal's handler, behind a call that does not
// return, without the descriptors that the process once had, in a forked child.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csetjmp>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Backtrace.h"
#include "Brelo/Exception.h"
#include "support/ChildProcess.h"

// The first ends in its call, which returns to the start of the second. The third is interrupted at
// its start. The frame of the fourth is one that only a walk by steps understands.
__asm__(R"(
  .text
  .globl stackWalkEndsInCall, stackWalkNext, stackWalkTraps, stackWalkUnusual
  .type stackWalkEndsInCall, @function
stackWalkEndsInCall:
  .cfi_startproc
  subq $8, %rsp
  .cfi_adjust_cfa_offset 8
  call *%rdi
  .size stackWalkEndsInCall, . - stackWalkEndsInCall
  .type stackWalkNext, @function
stackWalkNext:
  addq $8, %rsp
  .cfi_adjust_cfa_offset -8
  ret
  .cfi_endproc
  .size stackWalkNext, . - stackWalkNext
  .type stackWalkTraps, @function
stackWalkTraps:
  .cfi_startproc
  ud2
  .cfi_endproc
  .size stackWalkTraps, . - stackWalkTraps
  .type stackWalkUnusual, @function
stackWalkUnusual:
  .cfi_startproc
  subq $8, %rsp
  .cfi_escape 0x0f, 0x02, 0x77, 0x10
  call *%rdi
  addq $8, %rsp
  .cfi_def_cfa rsp, 8
  ret
  .cfi_endproc
  .size stackWalkUnusual, . - stackWalkUnusual
)");
extern "C" {
void stackWalkEndsInCall(void (*function)());
void stackWalkTraps();
void stackWalkUnusual(void (*function)());
}

namespace {

using Brelo::Backtrace;
using testing::ContainsRegex;
using testing::HasSubstr;

Backtrace record(false);
sigjmp_buf beforeSignal;

std::string nameAt(void* address) {
  Dl_info info;
  return dladdr(address, &info) != 0 && info.dli_sname != nullptr ? info.dli_sname : "";
}

/// Has the handlers of faults on the usual stack, or on one of their own, take the record and
/// leave.
struct FaultHandlers {
  explicit FaultHandlers(int flags) {
    stack_t own = {};
    own.ss_sp = stack.data();
    own.ss_size = stack.size();
    sigaltstack(&own, nullptr);
    struct sigaction action = {};
    action.sa_flags = flags;
    action.sa_handler = [](int) {
      record = Backtrace(true);
      siglongjmp(beforeSignal, 1);
    };
    for (int const fault : {SIGSEGV, SIGBUS, SIGILL})
      sigaction(fault, &action, nullptr);
  }

  std::vector<char> stack = std::vector<char>(1 << 18);
};

}  // namespace

/// Takes the record of its callers, then calls what may be no function.
extern "C" [[gnu::noinline]] void stackWalkCalls(void (*volatile function)(), Backtrace* before) {
  *before = Backtrace(true);
  function();
  __asm__ volatile("");
}

namespace {

/// Runs what ends in a fault.
template <class Body>
[[gnu::noinline]] void faultIn(Body body) {
  if (sigsetjmp(beforeSignal, 1) == 0) body();
}

TEST(StackWalk, StartsWithTheConstructor) {
  EXPECT_THAT(nameAt(Backtrace(true).frames()[0]), HasSubstr("Brelo9BacktraceC"));
  Brelo::RuntimeException const exception("");
  EXPECT_THAT(exception.what(), ContainsRegex("Backtrace:\n[^\n]*Brelo9BacktraceC"));
}

TEST(StackWalk, PassesASignalThatMetNoCode) {
  for (int const flags : {SA_NODEFER, SA_NODEFER | SA_ONSTACK}) {
    FaultHandlers const handlers(flags);
    for (std::uintptr_t const address : {0x0, 0x100, 0x10000}) {
      Backtrace before(false);
      faultIn([&] { stackWalkCalls(reinterpret_cast<void (*)()>(address), &before); });
      // A sanitizer has frames of its own beside the handler, so the culprit is looked for.
      int const count = static_cast<int>(record.count());
      int call = 0;
      while (call < count && nameAt(record.frames()[call]) != "stackWalkCalls")
        ++call;
      ASSERT_TRUE(call >= 4 && call < count) << record.pretty();
      EXPECT_EQ(record.frames()[call - 1], reinterpret_cast<void*>(address));
      void* const* const callers = record.frames() + call + 2;
      EXPECT_TRUE(
          std::equal(callers, record.frames() + count,
                     before.frames() + before.count() - (record.frames() + count - callers)));
    }
  }
}

TEST(StackWalk, NamesTheFunctionThatEndsInItsCallAndTheOneThatIsInterruptedAtItsStart) {
  stackWalkEndsInCall([] { record = Backtrace(true); });
  EXPECT_THAT(record.pretty(), HasSubstr("(stackWalkEndsInCall+0x6)["));
  FaultHandlers const handlers(SA_NODEFER);
  faultIn(stackWalkTraps);
  EXPECT_THAT(record.pretty(), HasSubstr("(stackWalkTraps+0x0)["));
}

TEST(StackWalk, TouchesNoDescriptor) {
  Backtrace const first(true);
  EXPECT_TRUE(BreloTest::passesInChild([] {
    closefrom(STDERR_FILENO + 1);
    std::vector<int> files;
    for (int i = 0; i < 10; ++i)
      files.push_back(memfd_create("StackWalkTest", 0));
    FaultHandlers const handlers(SA_NODEFER);
    stackWalkUnusual([] { record = Backtrace(true); });
    faultIn([] {
      Backtrace before(false);
      stackWalkCalls(reinterpret_cast<void (*)()>(0x10000), &before);
    });
    for (int const file : files) {
      struct stat status = {};
      EXPECT_TRUE(fstat(file, &status) == 0 && status.st_size == 0) << file;
      EXPECT_EQ(lseek(file, 0, SEEK_CUR), 0) << file;
    }
  }));
}

/// Kills the calling process after so long, whatever signals it has blocked.
void killIn(int seconds) {
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGKILL;
  timer_t timer;
  ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
  itimerspec const time = {{}, {seconds, 0}};
  ASSERT_EQ(timer_settime(timer, 0, &time, nullptr), 0);
}

TEST(StackWalk, HoldsUpNoForkThatFollows) {
  auto shortest = std::chrono::steady_clock::duration::max();
  for (int i = 0; i < 5; ++i) {
    Backtrace{true};
    auto const start = std::chrono::steady_clock::now();
    EXPECT_TRUE(BreloTest::passesInChild([] {}));
    shortest = std::min(shortest, std::chrono::steady_clock::now() - start);
  }
  EXPECT_LT(shortest, std::chrono::seconds(1)) << "which is how long a fork waits for a walk";
}

TEST(StackWalk, IsPossibleInAChildForkedWhileOthersWalked) {
  Backtrace{true};  // libunwind sets itself up at the first walk, without a word to sanitizers
  std::atomic<bool> stop = false;
  std::vector<std::thread> others;
  for (int i = 0; i < 2; ++i) {
    others.emplace_back([&stop] {
      while (!stop)
        stackWalkUnusual([] { Backtrace{true}; });
    });
  }
  for (int i = 0; i < 10 && !HasFailure(); ++i) {
    EXPECT_TRUE(BreloTest::passesInChild([] {
      killIn(10);
      stackWalkUnusual([] { EXPECT_GE(Backtrace(true).count(), 4U); });
    }));
  }
  stop = true;
  for (auto& other : others)
    other.join();
}

}  // namespace
