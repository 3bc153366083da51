#include "Brelo/system/ProcText.h"
#include "Check.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const line = BreloFuzz::toText(data, size);
  std::string const field = Brelo::Impl::inodeField(line);
  BreloFuzz::check(field.find(' ') == std::string::npos);
  if (!field.empty()) BreloFuzz::check(line.find(field + ' ') != std::string::npos);
  std::uint32_t const inode = Brelo::Impl::toU32(field);
  std::string const digits = std::to_string(inode);
  if (inode != 0) BreloFuzz::check(field.find(digits) != std::string::npos);
  return 0;
}
