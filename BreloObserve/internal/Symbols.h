#pragma once

#include <cstdint>
#include <string>

namespace BreloObserve::Impl {

/// What is known of an address of code.
struct Symbol {
  std::string module;     ///< a path, empty if the address is in no module
  std::uintptr_t offset;  ///< as the module's file counts
  char const* function;   ///< mangled, null if unknown; lives as long as the module
};

/// Looks in what the dynamic linker has loaded, for the program itself in its file, too. It takes
/// none of the linker's locks, so that it works while another thread is stuck in `dlopen`.
Symbol symbolAt(std::uintptr_t address);

}  // namespace BreloObserve::Impl
