#pragma once

#include <memory>
#include <string>

#include "Brelo/FileDescriptorTask.h"
#include "Descriptor.h"
#include "Timeout.h"

namespace Wordd {

/// Takes the clients of a listening socket, a few in a run. While the descriptor table is full
/// none is taken; the kernel lets them wait.
class Acceptor : public Brelo::FileDescriptorTask {
 public:
  Acceptor(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string const& name,
           Descriptor listening);
  ~Acceptor() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}

 protected:
  /// A client's socket, in non-blocking mode.
  virtual void accepted(Descriptor socket) = 0;
  Descriptor const& listening() const { return listening_; }

 private:
  Descriptor listening_;
  std::shared_ptr<Timeout> resume_;
};

/// The result of a system call, or the error as a std::system_error.
int checked(int result, char const* what);

}  // namespace Wordd
