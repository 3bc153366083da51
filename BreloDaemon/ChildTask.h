#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloDaemon/Descriptor.h"

namespace Brelo {
class TaskScheduler;
}

namespace BreloDaemon {

namespace Impl {
class ChildTaskInner;
}

/// A program that is to be run, and what it is given.
///
/// Beside the descriptors below it has none, whether or not those of this process are
/// close-on-exec; its signal mask is empty and all its signals have their default dispositions,
/// SIGPIPE too.
struct ChildProgram {
  /// What one of its standard descriptors is.
  enum class Standard : std::uint8_t {
    null,       ///< /dev/null
    inherited,  ///< that of this process
    pipe,       ///< one end of a pipe; ChildTask has the other
  };
  /// The process group that it begins in.
  enum class Group : std::uint8_t {
    inherited,
    own,      ///< of itself and its children, which are signalled together
    session,  ///< likewise, and without a terminal
  };

  std::string path;  ///< of its file, or its name
  /// Looks for a `path` without a slash in the directories of this process's PATH.
  bool pathSearched = false;
  std::vector<std::string> arguments;  ///< behind the name, which is `path`

  /// It has the environment of this process, changed by `environment`; otherwise that alone.
  bool environmentInherited = true;
  /// "NAME=value" for a variable, "NAME" alone for the want of it.
  std::vector<std::string> environment;

  std::string directory;  ///< where it begins; empty for that of this process

  Standard input = Standard::null;        ///< number 0
  Standard output = Standard::inherited;  ///< number 1
  Standard errors = Standard::inherited;  ///< number 2
  /// Further ones, by the number that they have in the child; also 0 to 2, in place of the above.
  /// They are closed in this process when the child has been started.
  std::map<int, Descriptor> descriptors;

  Group group = Group::inherited;  ///< that it begins in, and that signals go to

  /// How long it may run; more than zero, and `max()` for ever.
  std::chrono::nanoseconds timeLimit = std::chrono::nanoseconds::max();
  /// How long it has between SIGTERM and SIGKILL.
  std::chrono::nanoseconds killGrace = std::chrono::seconds(5);
};

/// How a child ended.
struct ChildEnd {
  /// What is known of it.
  enum class How : std::uint8_t {
    exited,     ///< `status` is its exit status
    signalled,  ///< `status` is the signal
    lost,       ///< somebody else has waited for it, or the process ignores SIGCHLD
  };

  How how = How::lost;      ///< see there
  int status = 0;           ///< the exit status, or the signal
  bool coreDumped = false;  ///< by the signal
  bool timedOut = false;    ///< its time was up before

  /// It exited with status 0.
  bool success() const { return how == How::exited && status == 0; }
};

/// For people: "exited with status 1", "killed by signal 15 (Terminated), its time was up".
BRELO_EXPORT std::string toString(ChildEnd const& end);

/// A program that runs as a child of this process, and the task that is told of its end.
///
/// It is known by a descriptor of the process, so that no signal ever hits another one that has
/// its number by now, and no handler of SIGCHLD is touched or needed. Whatever becomes of the
/// object, no zombie is left.
///
/// Its pipes are handed out as descriptors, made for a Stream. Belongs to the scheduler's thread,
/// and keeps the loop running while the child does. Asked to stop (see StopStep) it terminates the
/// child. In a forked child of this process it does nothing.
class BRELO_EXPORT ChildTask {
 public:
  /// Is told how the child ended.
  using EndHandler = std::function<void(ChildEnd const& end)>;

  /// Starts the program. Throws `std::system_error` that says what could not be done, when nothing
  /// has been left behind: that there is no such program is known here. The calling thread waits
  /// while the program is loaded. `ended` is called once, in a run of the task, when the child is
  /// gone; it may destroy the object, and what it throws goes on to the scheduler.
  ChildTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
            std::string name, ChildProgram program, EndHandler ended);
  ChildTask(ChildTask const&) = delete;
  ChildTask& operator=(ChildTask const&) = delete;
  /// Kills a child that still runs, with its group if it has one of its own, and waits for its end,
  /// 10 ms at most: one that takes longer to die is waited for by a thread.
  ~ChildTask();

  pid_t pid() const;     ///< for people: it may be another's after the end
  bool running() const;  ///< its end has not been told

  /// The other ends of pipes, to be taken over once; none if there is no pipe.
  /// @{
  Descriptor takeInput();   ///< to be written to
  Descriptor takeOutput();  ///< to be read from
  Descriptor takeErrors();  ///< to be read from
  /// @}

  /// Sends a signal to the child, or to its group if it has one of its own. False if it has ended,
  /// or the signal is refused.
  bool signal(int number);
  /// SIGTERM now, and SIGKILL after the grace time; what is left of its own group when the child
  /// ends is killed then. More than once is the same as once.
  void terminate();

 private:
  std::shared_ptr<Impl::ChildTaskInner> inner_;
};

}  // namespace BreloDaemon
