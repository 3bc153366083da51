#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "support/LineCounts.h"

namespace BreloTest {

/// A forked child that has run `body` by the time it is constructed here, and stays as it is until
/// its object goes. A `body` that replaces the program has that one stop itself.
struct ChildProcess {
  template <class Body>
  explicit ChildProcess(Body body) : pid(fork()) {
    if (pid == 0) body(), raise(SIGSTOP);
    int status = 0;
    EXPECT_TRUE(waitpid(pid, &status, WUNTRACED) == pid && WIFSTOPPED(status));
  }
  ChildProcess(ChildProcess const&) = delete;
  ~ChildProcess() { EXPECT_TRUE(kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0) == pid); }

  pid_t const pid;
};

/// Whether `body`, run in a forked child, comes to its end without a failed expectation.
template <class Body>
bool passesInChild(Body body) {
  std::fflush(stdout);
  pid_t const pid = fork();
  if (pid == 0) {
    body();
    std::fflush(stdout);
    lineCountsWrite();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  return waitpid(pid, &status, 0) == pid && status == 0;
}

/// Whether this process may make new namespaces of these types, and mounts of its own in them. A
/// changed root, which is no mount, does not allow those.
inline bool mayUnshare(int flags) {
  return passesInChild([flags] {
    bool const may = unshare(flags | CLONE_NEWNS) == 0 &&
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    _exit(may ? 0 : 1);
  });
}

/// Gives the calling process mounts of its own, with `source` in place of what is at `target`.
inline void mountHere(char const* source, char const* target, char const* type, unsigned flags) {
  EXPECT_EQ(unshare(CLONE_NEWNS), 0);
  EXPECT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  EXPECT_EQ(mount(source, target, type, flags, nullptr), 0);
}

}  // namespace BreloTest
