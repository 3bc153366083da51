#pragma once

#include <functional>
#include <utility>

namespace BreloDaemon {

/// A callback that may put another one in its own place, or take itself away, while it runs.
template <class Signature>
class CallbackSlot;

template <class Result, class... Arguments>
class CallbackSlot<Result(Arguments...)> {
 public:
  void set(std::function<Result(Arguments...)> callback) {
    callback_ = std::move(callback);
    replaced_ = true;
  }
  /// Not to be asked while it runs.
  explicit operator bool() const { return static_cast<bool>(callback_); }
  std::function<Result(Arguments...)> take() { return std::exchange(callback_, nullptr); }

  Result operator()(Arguments... arguments) {
    PutBack back{*this, take()};
    replaced_ = false;
    return back.running(arguments...);
  }

 private:
  struct PutBack {
    ~PutBack() {
      if (!slot.replaced_) slot.callback_.swap(running);
    }
    CallbackSlot& slot;
    std::function<Result(Arguments...)> running;
  };

  std::function<Result(Arguments...)> callback_;
  bool replaced_ = false;
};

}  // namespace BreloDaemon
