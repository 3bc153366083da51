#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace Wordd {

/// The result of a system call, or its error as a std::system_error.
template <class Result>
Result checked(Result result, std::string const& what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

/// A call that failed with this has not failed: it is made again, at once or at the next event.
inline bool isPassing(int error) {
  return error == EAGAIN || error == EINTR;
}

}  // namespace Wordd
