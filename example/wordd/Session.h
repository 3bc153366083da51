#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Brelo/TaskGroup.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/Stream.h"
#include "WordCount.h"

namespace Wordd {

/// One client: takes its text, counts its words at low priority and in slices of a quantum, and
/// sends the answer when the client has sent everything.
///
/// What a client can make us hold is bounded: `queueMax` bytes of text, what a stream receives
/// ahead of them, `WordCount::memoryMax` of words, and an answer made of them. The idle time runs
/// only while we wait for the client, never while it waits for us.
class Session {
 public:
  static constexpr std::size_t queueMax = 64 << 10;

  /// Gives the stream its handlers, which hold the session.
  static void begin(BreloDaemon::Stream& client, std::shared_ptr<Brelo::TaskGroup> const& counting,
                    std::shared_ptr<MemoryBudget> memory, std::chrono::nanoseconds idleLimit);

  Session(BreloDaemon::Stream& client, std::shared_ptr<Brelo::TaskGroup> const& counting,
          std::shared_ptr<MemoryBudget> memory, std::chrono::nanoseconds idleLimit);

 private:
  std::size_t receive(std::string_view bytes);
  void textComplete();
  void count(Brelo::TaskImpl& task);
  void workedOff();

  BreloDaemon::Stream& client_;
  std::chrono::nanoseconds const idleLimit_;
  WordCount words_;
  std::string queue_;
  std::size_t counted_ = 0;  // of the queue, from its front
  bool textComplete_ = false;
  BreloDaemon::FunctionTask count_;
};

}  // namespace Wordd
