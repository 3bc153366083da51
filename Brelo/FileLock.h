#pragma once

#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

namespace Brelo {

/// An advisory, exclusive lock on a whole file, held by an open file description.
///
/// Closing another descriptor of the file does not lose it, and a second lock on the file
/// conflicts in the same process as it does in another. It is free or held; the process that took
/// it must release it. A forked child shares the description: releasing or destroying a held
/// object there is an assertion, so that it cannot end its parent's lock. One thread at a time;
/// nothing here blocks.
class BRELO_EXPORT FileLock : public Debuggable {
 public:
  /// For the file `name` in `dir`; takes no lock. A "/" in `name` is an assertion.
  FileLock(Platform::DebugHandler& handler, std::string const& dir, std::string const& name);
  FileLock(FileLock const&) = delete;
  FileLock& operator=(FileLock const&) = delete;
  /// Releases a lock that is held; a failure ends the process.
  ~FileLock();

  /// Takes the lock, making the file and its directories, for all users, if they are missing; `dir`
  /// must not be empty. False if it is held elsewhere or the file cannot be opened, as a link,
  /// which is never followed; any other failure is an assertion. With `reentrant`, true if this
  /// process has taken it already; without, an object's own lock conflicts like any other. One
  /// `release` undoes any number of entries.
  bool lock(bool reentrant);
  /// Gives up the lock. Not holding it is an assertion, as is another process's lock.
  void release();
  /// Closes the descriptor, if there is one, and no more: the lock goes with its last descriptor,
  /// and `lock(true)` still counts as re-entry. `release` is what ends a lock.
  void closeFd();

  std::string const& file() const { return file_; }  ///< its path

 private:
  std::string dir_;
  std::string file_;
  int fd_ = -1;
  int ownerPid_ = -1;
};

/// The `fcntl` command that sets a lock of an open file description, which system headers define
/// for those alone who ask for extensions.
BRELO_EXPORT int cmd_F_OFD_SETLK();
/// The one that queries it.
BRELO_EXPORT int cmd_F_OFD_GETLK();

}  // namespace Brelo
