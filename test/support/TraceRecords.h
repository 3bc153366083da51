#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>
#include <utility>

#include "Zel/Trace.h"

namespace BreloTest {

/// Takes the records that this thread traces, one at a time alive. Switching it on and off reads
/// the environment anew, so levels set by hand last no longer than the capture.
class TraceRecords {
 public:
  explicit TraceRecords(char const* format = "%n/%l %m") {
    setenv("TRACEFORMAT", format, 1);
    readEnvironment();
    text_.clear();
    Zel::traceSinkIs([](char const* record, std::size_t length) { text_.append(record, length); });
  }
  TraceRecords(TraceRecords const&) = delete;
  TraceRecords& operator=(TraceRecords const&) = delete;
  ~TraceRecords() {
    Zel::traceSinkIs(nullptr);
    unsetenv("TRACEFORMAT");
    readEnvironment();
  }

  /// What has been traced since the last call, each record with its newline.
  std::string take() { return std::exchange(text_, {}); }

 private:
  static void readEnvironment() {
    Zel::Entity::singletonIs<Zel::TraceFacilityMan>()->doReadEnvironment();
  }

  static inline thread_local std::string text_;
};

}  // namespace BreloTest
