#pragma once

#include <memory>
#include <string>

#include "Brelo/FileDescriptorTask.h"
#include "Descriptor.h"
#include "Timeout.h"

namespace Wordd {

/// Takes the clients of a listening socket, a few in a run. While there are as many as may be, or
/// the descriptor table is full, none is taken; the kernel lets them wait.
class Acceptor : public Brelo::FileDescriptorTask {
 public:
  Acceptor(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string const& name,
           Descriptor listening);
  ~Acceptor() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}

 protected:
  /// A client's socket, in non-blocking mode. Where this throws, that client is refused.
  virtual void accepted(Descriptor socket) = 0;
  /// No client is taken while it is on. Does not throw.
  void fullIs(bool full);
  Descriptor const& listening() const { return listening_; }

 private:
  void take(Descriptor socket);
  void pause();
  void resume();

  Descriptor listening_;
  bool full_ = false;
  std::shared_ptr<Timeout> resume_;
};

}  // namespace Wordd
