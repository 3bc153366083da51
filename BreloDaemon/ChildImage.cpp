#include "BreloDaemon/internal/ChildImage.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>

namespace BreloDaemon::Impl {

namespace {

std::string_view nameOf(std::string_view variable) {
  return variable.substr(0, variable.find('='));
}

std::vector<std::string> candidates(ChildProgram const& program) {
  if (!program.pathSearched || program.path.find('/') != std::string::npos) return {program.path};
  char const* const searched = ::secure_getenv("PATH");
  std::string_view rest = searched != nullptr ? searched : "/usr/bin:/bin";
  std::vector<std::string> paths;
  for (;;) {
    auto const end = rest.find(':');
    std::string directory(rest.substr(0, end));
    paths.push_back((directory.empty() ? "." : directory) + '/' + program.path);
    if (end == std::string_view::npos) return paths;
    rest.remove_prefix(end + 1);
  }
}

std::vector<char const*> environmentOf(ChildProgram const& program) {
  std::vector<char const*> all;
  for (char** inherited = environ; program.environmentInherited && *inherited != nullptr;
       ++inherited) {
    bool const replaced =
        std::any_of(program.environment.begin(), program.environment.end(),
                    [&](auto const& own) { return nameOf(own) == nameOf(*inherited); });
    if (!replaced) all.push_back(*inherited);
  }
  for (auto const& own : program.environment)
    if (own.find('=') != std::string::npos) all.push_back(own.c_str());
  all.push_back(nullptr);
  return all;
}

}  // namespace

ChildImage::ChildImage(ChildProgram const& program, std::map<int, int> const& descriptors)
    : paths(candidates(program)),
      environment(environmentOf(program)),
      directory(program.directory.empty() ? nullptr : program.directory.c_str()),
      group(program.group),
      aboveMoves(3) {
  arguments.push_back(program.path.c_str());
  for (auto const& argument : program.arguments)
    arguments.push_back(argument.c_str());
  arguments.push_back(nullptr);

  unsigned next = 3;
  for (auto const& [to, from] : descriptors) {
    moves.push_back({from, to});
    aboveMoves = std::max(aboveMoves, to + 1);
    auto const number = static_cast<unsigned>(to);
    if (number > next) closedRanges.emplace_back(next, number - 1);
    next = std::max(next, number + 1);
  }
  closedRanges.emplace_back(next, UINT_MAX);
}

// From here on the child runs, in its parent's memory. It makes its calls itself, so that nothing
// which keeps accounts for the parent, a sanitizer or a lock of the C library, takes note of them.
#define IN_CHILD __attribute__((no_sanitize("address", "undefined", "thread")))

template <class... Arguments>
IN_CHILD static long call(long number, Arguments... arguments) {
  return ::syscall(number, arguments...);
}

IN_CHILD static bool fails(ChildImage& image, char const* what, long result) {
  if (result >= 0) return false;
  image.error = errno;
  image.failed = what;
  return true;
}

/// The default dispositions, before a handler of the parent's could run here.
IN_CHILD static void resetSignals() {
  struct {
    void* handler;
    unsigned long flags;
    void* restorer;
    unsigned long mask;
  } const byDefault{};
  for (int signal = 1; signal < NSIG; ++signal)
    call(SYS_rt_sigaction, signal, &byDefault, nullptr, sizeof byDefault.mask);
}

IN_CHILD static bool moveDescriptors(ChildImage& image) {
  // First out of the way of each other.
  for (auto& move : image.moves) {
    if (move.from >= image.aboveMoves) continue;
    move.from = static_cast<int>(call(SYS_fcntl, move.from, F_DUPFD_CLOEXEC, image.aboveMoves));
    if (fails(image, "duplicate a descriptor", move.from)) return false;
  }
  for (auto const& move : image.moves)
    if (fails(image, "place a descriptor", call(SYS_dup3, move.from, move.to, 0))) return false;
  // A kernel that knows nothing of it closes what is marked, which is all that the library has.
  for (auto const& [first, last] : image.closedRanges)
    call(SYS_close_range, first, last, CLOSE_RANGE_CLOEXEC);
  return true;
}

/// As the shells do it: goes on where there is nothing, and remembers what was there in vain.
IN_CHILD static void execute(ChildImage& image) {
  bool refused = false;
  for (auto const& path : image.paths) {
    call(SYS_execve, path.c_str(), image.arguments.data(), image.environment.data());
    if (errno == EACCES) refused = true;
    if (errno != EACCES && errno != ENOENT && errno != ENOTDIR) {
      refused = false;
      break;
    }
  }
  if (refused) errno = EACCES;
  fails(image, "execute", -1);
}

IN_CHILD int becomeProgram(void* given) noexcept {
  auto& image = *static_cast<ChildImage*>(given);
  resetSignals();
  long grouped = 0;
  if (image.group == ChildProgram::Group::own) grouped = call(SYS_setpgid, 0, 0);
  if (image.group == ChildProgram::Group::session) grouped = call(SYS_setsid);
  if (!fails(image, "make a process group", grouped) && moveDescriptors(image)) {
    long const entered = image.directory != nullptr ? call(SYS_chdir, image.directory) : 0;
    if (!fails(image, "enter a directory", entered)) {
      unsigned long const none = 0;
      call(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none);
      execute(image);
    }
  }
  call(SYS_exit_group, 127);
  __builtin_unreachable();
}

}  // namespace BreloDaemon::Impl
