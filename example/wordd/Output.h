#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Brelo/FileDescriptorTask.h"
#include "Descriptor.h"
#include "Timeout.h"

namespace Wordd {

/// Standard output as a descriptor like any other: text waits here until it is taken, and nothing
/// else waits with it. What comes while a mebibyte waits already is dropped, and everything once
/// the reader has gone.
class Output : public Brelo::FileDescriptorTask {
 public:
  explicit Output(std::shared_ptr<Brelo::TaskScheduler> const& scheduler);
  ~Output() override;

  void print(std::string_view text);
  /// Calls `finished` when all text is written, or after a second: a reader who does not read
  /// holds nobody up. It may give up the last owner of the output.
  void finish(std::function<void()> finished);

  void taskExecuteReadable() override {}
  void taskExecuteWritable() override;

 private:
  void writeSome();
  void end();

  Descriptor output_;
  std::string waiting_;
  std::function<void()> finished_;
  std::shared_ptr<Timeout> limit_;
};

}  // namespace Wordd
