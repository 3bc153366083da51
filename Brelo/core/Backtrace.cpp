#include "Brelo/Backtrace.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <limits>
#include <locale>
#include <optional>
#include <sstream>

#include "Brelo/Thread.h"
#include "Brelo/Time.h"
#include "Brelo/core/StackWalk.h"

namespace Brelo {

namespace {

std::optional<Dl_info> symbolAt(void const* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0) return std::nullopt;
  return info;
}

/// A call that does not return may be the last instruction of its function: the address behind it
/// is that of the next function, or of none.
std::optional<Dl_info> symbolOfCallBefore(void* address) {
  auto const info = symbolAt(address);
  if (info && info->dli_saddr != nullptr && info->dli_saddr != address) return info;
  auto const before = reinterpret_cast<std::uintptr_t>(address) - 1;
  auto const call = symbolAt(reinterpret_cast<void const*>(before));
  return call && (!info || call->dli_saddr != nullptr) ? call : info;
}

}  // namespace

Backtrace::Backtrace(bool capture) : timestamp_(std::numeric_limits<double>::infinity()) {
  if (capture) unwind();
  tid_ = gettid();  // at last: a tail call would take the first frame, which is this one
}

void Backtrace::unwind() {
  timestamp_ = time();
  constexpr int own = 2;  // the walk and this function
  void* frames[own + maxFrames];
  int const found = Impl::walkStack(frames, own + maxFrames);
  count_ = static_cast<std::uint32_t>(std::max(found - own, 0));
  std::copy_n(frames + own, count_, frames_);
}

int Backtrace::verbosity() {
  char const* const value = ::secure_getenv("BRELO_BACKTRACE_VERBOSITY");
  return value != nullptr && std::strcmp(value, "0") == 0 ? 0 : 1;
}

std::string Backtrace::pretty() const {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::fixed << "Timestamp:" << timestamp_ << " tid:" << tid_ << " Backtrace:\n";
  if (count_ == 0) text << "No backtrace available\n";
  for (std::uint32_t i = 0; i < count_; ++i) {
    auto* const frame = static_cast<char*>(frames_[i]);
    bool const interrupted = i > 0 && Impl::returnsFromSignal(frames_[i - 1]);
    if (auto const info = interrupted ? symbolAt(frame) : symbolOfCallBefore(frame)) {
      if (info->dli_fname != nullptr) text << info->dli_fname;
      auto const* const base =
          static_cast<char const*>(info->dli_saddr != nullptr ? info->dli_saddr : info->dli_fbase);
      text << "(" << (info->dli_sname != nullptr ? info->dli_sname : "") << "+0x" << std::hex
           << (frame - base) << std::dec << ")";
    }
    text << "[" << static_cast<void const*>(frame) << "]" << std::endl;
  }
  return text.str();
}

}  // namespace Brelo
