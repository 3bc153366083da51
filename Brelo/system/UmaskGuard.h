#pragma once

#include <sys/stat.h>

namespace Brelo::Impl {

/// The process's umask at 0, for files that other users share. Keeps `errno`.
class UmaskGuard {
 public:
  UmaskGuard() : saved_(umask(0)) {}
  UmaskGuard(UmaskGuard const&) = delete;
  UmaskGuard& operator=(UmaskGuard const&) = delete;
  ~UmaskGuard() { umask(saved_); }

 private:
  mode_t saved_;
};

}  // namespace Brelo::Impl
