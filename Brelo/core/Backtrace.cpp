#include "Brelo/Backtrace.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <limits>
#include <sstream>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "Brelo/Thread.h"
#include "Brelo/Time.h"

namespace Brelo {

Backtrace::Backtrace(bool capture)
    : tid_(gettid()), timestamp_(std::numeric_limits<double>::infinity()) {
  if (!capture) return;
  unwind();
  // No tail call: this constructor is the first frame of the record.
  __asm__ volatile("");
}

void Backtrace::unwind() {
  timestamp_ = time();
  // The walk that libunwind has for this costs a hundredth of the one by steps. Its first entry is
  // this function itself.
  void* frames[1 + maxFrames];
#ifdef __SANITIZE_THREAD__
  int const found = 0;  // its cache of a thread ends after the sanitizer has let go of the thread
#else
  int const found = unw_backtrace(frames, static_cast<int>(1 + maxFrames));
#endif
  if (found <= 1) {
    count_ = walkBySteps();
    return;
  }
  count_ = static_cast<std::uint32_t>(found - 1);
  std::copy_n(frames + 1, count_, frames_);
}

std::uint32_t Backtrace::walkBySteps() {
  unw_context_t context;
  if (unw_getcontext(&context) != 0) return 0;
  unw_cursor_t cursor;
  // The first step leads to unwind(), which called this, and is not recorded.
  if (unw_init_local(&cursor, &context) != 0 || unw_step(&cursor) <= 0) return 0;
  std::uint32_t count = 0;
  while (count < maxFrames && unw_step(&cursor) > 0) {
    unw_word_t address = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &address) != 0) break;
    frames_[count++] = reinterpret_cast<void*>(address);
  }
  return count;
}

int Backtrace::verbosity() {
  char const* const value = ::secure_getenv("BRELO_BACKTRACE_VERBOSITY");
  return value != nullptr && std::strcmp(value, "0") == 0 ? 0 : 1;
}

std::string Backtrace::pretty() const {
  std::ostringstream text;
  text << std::fixed << "Timestamp:" << timestamp_ << " tid:" << tid_ << " Backtrace:\n";
  if (count_ == 0) text << "No backtrace available\n";
  for (std::uint32_t i = 0; i < count_; ++i) {
    auto* const frame = static_cast<char*>(frames_[i]);
    Dl_info info;
    if (dladdr(frame, &info) != 0) {
      if (info.dli_fname != nullptr) text << info.dli_fname;
      auto const* const base =
          static_cast<char const*>(info.dli_saddr != nullptr ? info.dli_saddr : info.dli_fbase);
      text << "(" << (info.dli_sname != nullptr ? info.dli_sname : "") << "+0x" << std::hex
           << (frame - base) << std::dec << ")";
    }
    text << "[" << static_cast<void const*>(frame) << "]" << std::endl;
  }
  return text.str();
}

}  // namespace Brelo
