// The code of doc/observe/crashes.md.
#include "Crashes.h"

#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>

#include "ObserveSnippets.h"

namespace {

void print(char const* text) {
  [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, text, std::strlen(text));
}

extern "C" void printStack(int signal) {
  void* frames[100];
  int const count = backtrace(frames, 100);
  print("crash: ");
  print(sigdescr_np(signal));
  print("\n");
  backtrace_symbols_fd(frames, count, STDERR_FILENO);
  raise(signal);  // which has its default action again
}

[[noreturn]] void printException() {
  print("crash: an exception that nobody catches: ");
  try {
    if (std::current_exception() != nullptr) throw;
    print("none");
  } catch (std::exception const& thrown) {
    print(thrown.what());
  } catch (...) {
    print("of an unknown type");
  }
  print("\n");
  std::abort();
}

}  // namespace

void tellOfCrashes() {
  void* first[1];
  backtrace(first, 1);  // loads what it needs, while memory can still be had

  static thread_local char stack[1 << 16];  // a stack that has overflowed is of no use
  stack_t own = {};
  own.ss_sp = stack;
  own.ss_size = sizeof stack;
  sigaltstack(&own, nullptr);

  struct sigaction action = {};
  action.sa_handler = &printStack;
  action.sa_flags = SA_ONSTACK | SA_RESETHAND;
  for (int const signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    sigaction(signal, &action, nullptr);
  std::set_terminate(&printException);
}

void crashes() {
  tellOfCrashes();
}
