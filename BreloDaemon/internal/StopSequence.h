#pragma once

#include <functional>
#include <string>
#include <vector>

namespace BreloDaemon {

class StopStep;

/// The steps of a thread that are not done, and how far its orderly end has come. One for each
/// thread; it needs no destructor, so that steps of static storage find it whenever they go.
class StopSequence {
 public:
  /// The calling thread's.
  static StopSequence& instance();

  /// Begins the end. `resume`, which must last until `reset()`, is called when a step that was
  /// waited for is done, also from inside that step's object: it is to call `goOn()` from the loop.
  void begin(std::function<void()> const& resume);
  /// Takes steps until one is to be waited for. True if all are done. What a step throws comes out
  /// of here: the step counts as done, and the next call goes on.
  bool goOn();
  /// Forgets that the end has begun.
  void reset() { resume_ = nullptr; }
  /// All steps are done.
  bool empty() const { return newest_ == nullptr; }
  /// The names of the steps that are not done, the next one first.
  std::vector<std::string> unfinished() const;

  void add(StopStep& step);
  void remove(StopStep const& step);

 private:
  void refuseAll();

  StopStep* newest_ = nullptr;
  StopStep* next_ = nullptr;  // to be refused
  StopStep const* waitedFor_ = nullptr;
  std::function<void()> const* resume_ = nullptr;
};

}  // namespace BreloDaemon
