#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Brelo/DirNode.h"

namespace Brelo::Impl {

/// The descriptors of processes, as far as permissions allow, in the order of "/proc".
class DescriptorWalk {
 public:
  /// `wanted` is given a process's name in "/proc", and asked again at each `next()`.
  DescriptorWalk(Platform::DebugHandler& handler, std::function<bool(std::string const&)> wanted);

  bool isOpen() const { return proc_.isOpen(); }  ///< there is a "/proc"
  /// Goes on to the next descriptor of a process whose name in "/proc" is wanted; false at the end.
  bool next();

  std::string const& process() const { return process_; }
  std::string const& number() const { return number_; }  ///< the descriptor's
  std::string path() const { return descriptors_->path() + "/" + number_; }

 private:
  Platform::DebugHandler& handler_;
  std::function<bool(std::string const&)> wanted_;
  DirNode proc_;
  std::optional<DirNode> descriptors_;
  std::string process_;
  std::string number_;
};

}  // namespace Brelo::Impl
