#pragma once

#include <memory>
#include <ostream>

#include "Brelo/Export.h"
#include "Brelo/FdToStream.h"

namespace Brelo {

namespace Impl {

class JsonWriter;

}  // namespace Impl

/// One JSON document of statistics in the making: making it opens the document, each snapshot
/// rendered into it adds a member of "schedulers", and closing or dropping it completes the
/// document. All bytes are on the stream once the context is made, after each snapshot and after
/// the close.
///
/// Errors of the stream are not looked at. An exception amid a snapshot, for want of memory or of a
/// stream that throws, leaves the document cut short: to close or drop it then adds nothing.
class BRELO_EXPORT TaskSchedulerPrintContext {
 public:
  /// The stream is the caller's and must outlive the context.
  explicit TaskSchedulerPrintContext(std::ostream& stream);
  /// Writes to the standard output for 1, to the standard error for 2, else to a blocking
  /// descriptor, which is closed at the end if asked for.
  TaskSchedulerPrintContext(int fd, bool closeFd);
  TaskSchedulerPrintContext(TaskSchedulerPrintContext const&) = delete;
  TaskSchedulerPrintContext& operator=(TaskSchedulerPrintContext const&) = delete;
  ~TaskSchedulerPrintContext();

  /// Completes the document. A second call is an assertion.
  void closeJson();

  /// For what renders itself into the document.
  Impl::JsonWriter& writer() { return *writer_; }

 private:
  std::ostream& openSink(int fd, bool closeFd);
  void openJson();

  FdToStream sink_;
  std::unique_ptr<Impl::JsonWriter> writer_;
  bool jsonClosed_ = false;
};

}  // namespace Brelo
