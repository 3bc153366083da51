#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Brelo/Platform.h"

namespace Brelo::Platform {

/// One thing that keeps a loop.
struct Pending {
  enum class Kind : std::uint8_t { callback, timer, descriptor, idleWheel };

  Kind kind;
  std::string name;
  double remaining = 0;  ///< seconds, of a timer
  int fd = -1;           ///< of a descriptor
  bool reads = false;    ///< what is watched for
  bool writes = false;
};

/// The name of who is not the platform's.
inline constexpr char const* stranger = "of another client";

/// What a backend finds on the calling thread's loop.
class PendingList {
 public:
  void addCallback(std::string name);
  void addTimer(std::string name, double remaining);
  void addDescriptor(std::string name, int fd, bool reads, bool writes);
  void addIdleWheel(double remaining);

  /// In the order of the report: callbacks, timers by time, descriptors by number, idle wheels.
  std::vector<Pending> sorted() &&;

 private:
  std::vector<Pending> entries_;
};

}  // namespace Brelo::Platform
