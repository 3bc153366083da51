#pragma once

#include <string_view>

namespace Zel {

/// Writes the whole text to standard error, in one `write` if the kernel takes it at
/// once, else in as many as it needs. Waits on a full pipe even if the descriptor does not block;
/// gives up silently on an error. Allocates nothing and keeps `errno`.
void writeStandardError(std::string_view text) noexcept;

}  // namespace Zel
