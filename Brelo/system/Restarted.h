#pragma once

#include <cerrno>

namespace Brelo::Impl {

/// The call's result; made again for as long as a signal interrupts it, as on a network file
/// system.
template <class Call>
int restarted(Call call) {
  int result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace Brelo::Impl
