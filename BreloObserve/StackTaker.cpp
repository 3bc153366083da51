#include "BreloObserve/internal/StackTaker.h"

#include <dlfcn.h>
#include <ucontext.h>
#include <unwind.h>

#include "Brelo/Assert.h"

namespace BreloObserve::Impl {

namespace {

std::uintptr_t interruptedAt(ucontext_t const& context) {
#if defined(__x86_64__)
  return static_cast<std::uintptr_t>(context.uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return context.uc_mcontext.pc;
#else
#error "where does this processor keep the address of the next instruction?"
#endif
}

}  // namespace

/// That of libgcc_s, by its name: libunwind has functions of the same names, with locks of its own
/// and of the loader. This one finds a function's frame by `_dl_find_object`, which has none.
struct StackTaker::Unwinder {
  Unwinder() {
    void* const library = dlopen("libgcc_s.so.1", RTLD_LAZY);
    if (library == nullptr) BRELO_FAIL("StallDetector", "no unwinder: {}", dlerror());
    find(library, "_Unwind_Backtrace", backtrace);
    find(library, "_Unwind_GetIPInfo", address);
    find(library, "_Unwind_GetRegionStart", function);
    // Its first walk binds its calls and fills its tables.
    backtrace(
        [](_Unwind_Context* frame, void* self) {
          int before = 0;
          static_cast<Unwinder const*>(self)->address(frame, &before);
          static_cast<Unwinder const*>(self)->function(frame);
          return _URC_NO_REASON;
        },
        this);
  }

  template <class Function>
  static void find(void* library, char const* name, Function*& function) {
    function = reinterpret_cast<Function*>(dlsym(library, name));
    if (function == nullptr) BRELO_FAIL("StallDetector", "no unwinder: {}", dlerror());
  }

  decltype(_Unwind_Backtrace)* backtrace;
  decltype(_Unwind_GetIPInfo)* address;
  decltype(_Unwind_GetRegionStart)* function;
};

struct StackTaker::Walk {
  static _Unwind_Reason_Code visit(_Unwind_Context* frame, void* walk) {
    return static_cast<Walk*>(walk)->visit(frame) ? _URC_NO_REASON : _URC_END_OF_STACK;
  }

  bool visit(_Unwind_Context* frame) {
    int interrupted = 0;
    std::uintptr_t const address = unwinder.address(frame, &interrupted);
    // First come the handler and the way back from it.
    if (stack.count == 0 && address != start) return ++passed < passedMax;
    if (stack.count > 0 && address == 0) return false;  // beyond the outermost call
    auto const i = static_cast<std::size_t>(stack.count++);
    stack.addresses[i] = interrupted != 0 ? address : address - 1;
    stack.functions[i] = unwinder.function(frame);
    return stack.count < TakenStack::framesMax;
  }

  static constexpr int passedMax = 20;

  Unwinder const& unwinder;
  TakenStack& stack;
  std::uintptr_t const start;
  int passed = 0;
};

StackTaker::StackTaker()
    : unwinder_([]() -> Unwinder const& {
        static Unwinder const unwinder;
        return unwinder;
      }()) {}

void StackTaker::take(void const* context, TakenStack& stack) const {
  auto const start = interruptedAt(*static_cast<ucontext_t const*>(context));
  stack.count = 0;
  Walk walk{unwinder_, stack, start};
  unwinder_.backtrace(&Walk::visit, &walk);
  if (stack.count > 0) return;
  // Code that no unwinder knows of.
  stack.count = 1;
  stack.addresses[0] = start;
  stack.functions[0] = 0;
}

}  // namespace BreloObserve::Impl
