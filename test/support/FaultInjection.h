#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

/// Makes calls of the C library fail on purpose, in whatever part of this program they are made.
///
/// A test program gets it with `FAULTS` among the arguments of `brelo_tests`. The
/// interposed calls are listed at the end of FaultInjection.cpp, one line for each, and "new",
/// whose fault of any number is a `bad_alloc`. Faults hit the thread that ordered them, and nothing
/// else; a trace that goes to standard error calls `write`, so capture traces where `write` is to
/// fail. Each trace leaves a strange `errno` behind.

namespace BreloTest {

/// What becomes of the successive calls of each function: an error number to fail with, or 0 to
/// go through. Calls beyond the list go through.
///     {{"mkdir", {ENOENT, 0, EACCES}}}  the first and the third call fail
using Faults = std::map<std::string, std::vector<int>>;

/// Places the faults for its lifetime, one at a time alive on a thread.
class FaultInjection {
 public:
  explicit FaultInjection(Faults faults);
  FaultInjection(FaultInjection const&) = delete;
  FaultInjection& operator=(FaultInjection const&) = delete;
  ~FaultInjection();

  /// The calls planned for, those let through included, that nobody has made.
  Faults const& left() const { return faults_; }

 private:
  Faults faults_;
};

/// One row of a fault table: `check` runs with the faults in place.
struct FaultRow {
  std::string what;
  Faults faults;
  std::function<void()> check;
};

/// Tries every row, and prints how many of how many were tried, one meaning that all its faults
/// came up. Each row must use up its faults and leave as many descriptors open as it found.
void tryFaults(std::vector<FaultRow> const& rows);

/// The number of this process's open descriptors.
unsigned openDescriptors();

}  // namespace BreloTest
