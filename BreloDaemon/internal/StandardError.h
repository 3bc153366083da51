#pragma once

#include <string_view>

namespace BreloDaemon::Impl {

/// Writes the text to standard error as far as that takes it without waiting: a pipe whose reader
/// is slow loses text, and holds nobody up.
void sayOnStandardError(std::string_view text);

/// Opens /dev/null in place of each of the three standard descriptors that is closed. Throws
/// `std::system_error`.
void openStandardDescriptors();

}  // namespace BreloDaemon::Impl
