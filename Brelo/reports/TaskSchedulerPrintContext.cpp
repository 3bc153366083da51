#include "Brelo/TaskSchedulerPrintContext.h"

#include <iostream>

#include "Brelo/reports/JsonWriter.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::ostream& stream)
    : writer_(std::make_unique<Impl::JsonWriter>(stream)) {
  openJson();
}

TaskSchedulerPrintContext::TaskSchedulerPrintContext(int fd, bool closeFd)
    : writer_(std::make_unique<Impl::JsonWriter>(openSink(fd, closeFd))) {
  openJson();
}

std::ostream& TaskSchedulerPrintContext::openSink(int fd, bool closeFd) {
  if (fd == 1) return std::cout;
  if (fd == 2) return std::cerr;
  sink_.fdIs(fd, closeFd);
  return sink_;
}

TaskSchedulerPrintContext::~TaskSchedulerPrintContext() {
  if (jsonClosed_) return;
  try {
    closeJson();
  } catch (...) {  // of a stream that throws: a destructor has nobody to tell
  }
}

void TaskSchedulerPrintContext::openJson() {
  writer_->StartObject();
  writer_->Key("schedulers");
  writer_->StartObject();
  writer_->flush();
}

void TaskSchedulerPrintContext::closeJson() {
  BRELO_SCHEDULER_ASSERT(!jsonClosed_, "JSON already closed");
  jsonClosed_ = true;
  if (writer_->broken()) return;
  writer_->EndObject();
  writer_->EndObject();
  writer_->flush();
}

}  // namespace Brelo
