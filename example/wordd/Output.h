#pragma once

#include <chrono>
#include <memory>
#include <string_view>

#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/Stream.h"

namespace Wordd {

/// Standard output as a stream: text waits here until it is taken, and nothing else waits with it.
/// What comes while a mebibyte waits already is dropped, and everything once the reader has gone.
/// At the end of the daemon a reader has a second.
class Output {
 public:
  explicit Output(std::shared_ptr<Brelo::TaskScheduler> const& scheduler);

  void print(std::string_view text);

 private:
  void finish();

  std::shared_ptr<BreloDaemon::Stream> stream_;
  BreloDaemon::StopStep stop_;
};

}  // namespace Wordd
