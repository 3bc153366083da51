#include "BreloObserve/internal/StallText.h"

#include <cxxabi.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "BreloObserve/internal/Symbols.h"

namespace BreloObserve::Impl {

namespace {

struct Freed {
  void operator()(char* text) const { std::free(text); }
};

std::string demangled(char const* name) {
  int status = 0;
  std::unique_ptr<char, Freed> const text(abi::__cxa_demangle(name, nullptr, nullptr, &status));
  return status == 0 ? text.get() : name;
}

StallFrame frameAt(std::uintptr_t address) {
  Symbol const symbol = symbolAt(address);
  return {symbol.module, symbol.offset,
          symbol.function == nullptr ? std::string() : demangled(symbol.function), address};
}

void appendFrames(std::string& text, std::vector<StallFrame> const& frames) {
  for (StallFrame const& frame : frames) {
    text += fmt::format("\n    {:#x} {} {}", frame.offset,
                        frame.module.empty() ? "(no module)" : frame.module,
                        frame.function.empty() ? "(no name)" : frame.function);
  }
}

double seconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) * 1e-9;
}

}  // namespace

std::vector<StallFrame> framesOf(TakenStack const& stack) {
  std::vector<StallFrame> frames;
  frames.reserve(static_cast<std::size_t>(stack.count));
  for (int i = 0; i < stack.count; ++i)
    frames.push_back(frameAt(stack.addresses[static_cast<std::size_t>(i)]));
  return frames;
}

std::string textOf(Stall const& stall) {
  std::string text = fmt::format(
      "{} of {} held the loop for {:.3f} s, {:.3f} s of it on the processor", stall.name,
      stall.group, seconds(stall.length.count()), seconds(stall.cpu.count()));
  appendFrames(text, stall.frames);
  return text;
}

void writeLasting(StallCatch const* found, std::int64_t length, std::int64_t cpu) noexcept try {
  std::string text = "StallDetector: ";
  if (found == nullptr) {
    text += "a run";
  } else {
    text += fmt::format("{} of {}", found->name.data(), found->group.data());
  }
  text += fmt::format(" has held the loop for {:.3f} s, {:.3f} s of it on the processor",
                      seconds(length), seconds(cpu));
  if (found == nullptr) {
    text += ", and its thread takes no signal";
  } else {
    appendFrames(text, framesOf(found->stack));
  }
  text += '\n';
  [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, text.data(), text.size());
} catch (...) {
  // Without memory for it nothing is told.
}

}  // namespace BreloObserve::Impl
