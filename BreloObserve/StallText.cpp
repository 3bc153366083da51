#include "BreloObserve/internal/StallText.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

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

/// The main program has no name among the loaded modules.
std::string const& programPath() {
  static std::string const path = [] {
    std::string text(4096, '\0');
    ssize_t const length = readlink("/proc/self/exe", text.data(), text.size());
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }();
  return path;
}

StallFrame frameAt(std::uintptr_t address) {
  StallFrame frame{{}, address, {}, address};
  Dl_info info;
  link_map* module = nullptr;
  if (dladdr1(reinterpret_cast<void const*>(address), &info, reinterpret_cast<void**>(&module),
              RTLD_DL_LINKMAP) == 0) {
    return frame;
  }
  frame.module = *module->l_name != '\0' ? module->l_name : programPath();
  frame.offset = address - module->l_addr;
  if (info.dli_sname != nullptr) frame.function = demangled(info.dli_sname);
  return frame;
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
