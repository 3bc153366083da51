#include "Brelo/UtilProcess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "Brelo/UtilFiles.h"
#include "Brelo/system/DescriptorWalk.h"
#include "Brelo/system/ProcText.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Util {

using Impl::DescriptorWalk;
using Impl::utilTrace;
using Platform::DebugHandler;

namespace {

/// The process that an entry of "/proc" stands for; 0 if for none.
std::uint32_t entryPid(std::string const& name) {
  return name == "self" ? static_cast<std::uint32_t>(getpid()) : Impl::toU32(name);
}

std::uint32_t readProcNetUnix(DebugHandler& handler, std::string const& socketName) {
  std::ifstream file("/proc/net/unix");
  for (std::string line; std::getline(file, line);) {
    BRELO_UTIL_TRACE(handler, 7, "{}", line);
    if (line.find(socketName) == std::string::npos) continue;
    std::string const field = Impl::inodeField(line);
    std::uint32_t const sockInode = Impl::toU32(field);
    if (sockInode == 0) {
      BRELO_UTIL_TRACE(handler, 1, "Couldn't convert inode '{}' to U32.", field);
      continue;
    }
    BRELO_UTIL_TRACE(handler, 5, "sockInode:{}", sockInode);
    return sockInode;
  }
  return 0;
}

std::uint32_t readProcFd(DebugHandler& handler, unsigned int inode) {
  BRELO_UTIL_TRACE(handler, 5, "searching for inode: {}", inode);
  DescriptorWalk walk(handler, [](std::string const&) { return true; });
  if (!walk.isOpen()) BRELO_UTIL_FAIL(handler, "Couldn't open /proc");
  while (walk.next()) {
    std::string const entry = walk.path();
    BRELO_UTIL_TRACE(handler, 9, "reading entry {}", entry);
    struct stat status;
    if (stat(entry.c_str(), &status) != 0) {
      BRELO_UTIL_TRACE(handler, 1, "stat failed:{}", Brelo::strerror(errno));
      continue;
    }
    if (!S_ISSOCK(status.st_mode)) continue;
    BRELO_UTIL_TRACE(handler, 9, "socket {}'s inode is:{}", entry, status.st_ino);
    if (status.st_ino != inode) continue;
    std::uint32_t const pid = entryPid(walk.process());
    if (pid == 0) {
      BRELO_UTIL_TRACE(handler, 1, "could not convert pid directory string '{}' to U32",
                       walk.process());
    }
    BRELO_UTIL_TRACE(handler, 5, "found owner pid:{}", pid);
    return pid;
  }
  return 0;
}

}  // namespace

std::string readProcTitle(DebugHandler& handler, int pid, bool quiet) {
  std::string const path = fmt::format("/proc/{}/status", pid);
  std::ifstream file(path);
  if (!file) {
    BRELO_UTIL_TRACE(handler, quiet ? 5 : 1,
                     "error - Couldn't access status file:{} stream state:{}", path,
                     file.rdstate());
    return {};
  }
  auto const title = Impl::titleOf(file);
  if (!title) {
    BRELO_UTIL_TRACE(handler, 1, "error - Couldn't find proc title for pid:{} stream state:{}", pid,
                     file.rdstate());
    return {};
  }
  if (title->empty()) {
    BRELO_UTIL_TRACE(handler, 1, "error - Read 0 length title for pid:{}", pid);
  } else {
    BRELO_UTIL_TRACE(handler, 5, "success - title:{}", *title);
  }
  return *title;
}

std::string readProcTitle(int pid, bool quiet) {
  return readProcTitle(utilTrace, pid, quiet);
}

std::string readProcStartTime(DebugHandler& handler, int pid) {
  static constexpr std::size_t startTimeFieldPos = 19;
  std::string const path = fmt::format("/proc/{}/stat", pid);
  std::ifstream file(path);
  if (!file) {
    BRELO_UTIL_TRACE(handler, 5, "error - Couldn't access stat file:{} stream state:{}", path,
                     file.rdstate());
    return {};
  }
  // To the end: the one line that the kernel writes goes on behind a new line in the command.
  std::string line;
  if (!std::getline(file, line, '\0')) {
    BRELO_UTIL_TRACE(handler, 5, "failed to read contents of file: {} stream state: {}", path,
                     file.rdstate());
    return {};
  }
  line.erase(line.find_last_not_of('\n') + 1);
  std::string const fields = Impl::fieldsBehindCommand(line);
  if (fields.empty()) {
    BRELO_UTIL_FAIL(handler, "input not long enough to contain start time. file: {} line: \"{}\"",
                    path, line);
  }
  auto const tokens = Impl::splitAtBlanks(fields);
  auto const tokPos = tokens.size();
  std::string const procStartTime =
      tokPos > startTimeFieldPos ? tokens[startTimeFieldPos] : std::string();
  if (procStartTime.empty()) {
    BRELO_UTIL_FAIL(handler,
                    "Failed to parse start time from file: {} line: \"{}\" "
                    "procStartTime.size():{} tokPos:{} startTimeFieldPos:{}",
                    path, line, procStartTime.size(), tokPos, startTimeFieldPos);
  }
  BRELO_UTIL_TRACE(handler, 5, "success - pid:{} start time:{}", pid, procStartTime);
  return procStartTime;
}

std::string readProcStartTime(int pid) {
  return readProcStartTime(utilTrace, pid);
}

std::string readPidCmdline(DebugHandler& handler, int pid) {
  return Impl::commandLine(fileRead(handler, fmt::format("/proc/{}/cmdline", pid), true));
}

std::uint32_t readSocketPid(DebugHandler& handler, std::string const& socketName) {
  BRELO_UTIL_TRACE(handler, 5, "searching for socket name:{}", socketName);
  std::uint32_t const inode = readProcNetUnix(handler, socketName);
  if (inode == 0) {
    BRELO_UTIL_TRACE(handler, 5, "unable to find inode");
    return 0;
  }
  return readProcFd(handler, inode);
}

std::uint32_t readLockPid(DebugHandler& handler, std::string const& lockName) {
  BRELO_UTIL_TRACE(handler, 9, "lockName:{}", lockName);
  std::string locks;
  DescriptorWalk walk(handler, [&locks](std::string const& process) {
    return entryPid(process) != 0 && Impl::mayHoldLock(locks, process);
  });
  if (!walk.isOpen()) BRELO_UTIL_FAIL(handler, "Couldn't open /proc");
  locks = fileRead(handler, "/proc/locks", true);
  while (walk.next()) {
    std::string const entry = walk.path();
    BRELO_UTIL_TRACE(handler, 9, "reading entry {}", entry);
    struct stat status;
    if (stat(entry.c_str(), &status) != 0) {
      BRELO_UTIL_TRACE(handler, 5, "stat {} failed:{}", entry, Brelo::strerror(errno));
      continue;
    }
    if (!S_ISREG(status.st_mode)) continue;
    // One byte more than the name, so that a longer one does not compare equal.
    std::string link(lockName.size() + 1, '\0');
    ssize_t const length = readlink(entry.c_str(), link.data(), link.size());
    if (length < 0) {
      BRELO_UTIL_TRACE(handler, 5, "readlink of file:{} failed {}", entry, Brelo::strerror(errno));
      continue;
    }
    link.resize(static_cast<std::size_t>(length));
    BRELO_UTIL_TRACE(handler, 9, "lock {}'s file is:{}", entry, link);
    if (link != lockName) continue;
    std::uint32_t const pid = entryPid(walk.process());
    auto const info = fmt::format("/proc/{}/fdinfo/{}", pid, walk.number());
    if (Impl::listsLock(fileRead(handler, info, true))) {
      BRELO_UTIL_TRACE(handler, 5, "found owner pid:{}", pid);
      return pid;
    }
    BRELO_UTIL_TRACE(handler, 5, "pid:{} file:{} is open, but not locked associated with lock", pid,
                     lockName);
  }
  return 0;
}

}  // namespace Brelo::Util
