#pragma once

#include <string>

#include "BreloDaemon/Descriptor.h"

namespace BreloDaemon {

/// Keeps other processes that ask for it out of the directory of a file, without a file of its own.
class DirectoryLock {
 public:
  enum Wait { aSecond, atOnce };

  /// Of the directory that `path` stands in. What cannot be had throws `std::system_error`, or with
  /// `atOnce` leaves the object without.
  explicit DirectoryLock(std::string const& path, Wait wait = aSecond);

  explicit operator bool() const { return static_cast<bool>(directory_); }

 private:
  Descriptor directory_;
};

}  // namespace BreloDaemon
