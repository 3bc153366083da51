#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "BreloObserve/StallDetector.h"
#include "BreloObserve/internal/StallSlot.h"

namespace BreloObserve::Impl {

/// With the names of functions. Any thread, also while another is stuck in the dynamic linker.
/// @{
std::vector<StallFrame> framesOf(TakenStack const& stack);
std::string textOf(Stall const& stall);
/// @}

/// Tells on standard error of a run that goes on; `found` is null if its thread does not answer.
void writeLasting(StallCatch const* found, std::int64_t length, std::int64_t cpu) noexcept;

}  // namespace BreloObserve::Impl
