#pragma once

#include <string>

#include "BreloDaemon/Descriptor.h"

namespace BreloDaemon {

/// Keeps other processes that ask for it out of the directory of a file, without a file of its own.
class DirectoryLock {
 public:
  enum Wait { aSecond, aMoment };

  /// Of the directory that `path` stands in. Where it cannot be had within that time,
  /// `std::system_error` is thrown, or with `aMoment` the object is without.
  explicit DirectoryLock(std::string const& path, Wait wait = aSecond);

  explicit operator bool() const { return static_cast<bool>(directory_); }

 private:
  Descriptor directory_;
};

}  // namespace BreloDaemon
