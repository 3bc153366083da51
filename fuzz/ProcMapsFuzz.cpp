#include <cstdio>
#include <memory>

#include "Brelo/Mappings.h"
#include "Check.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string text = BreloFuzz::toText(data, size);
  if (text.empty()) return 0;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(
      fmemopen(text.data(), text.size(), "r"), std::fclose);
  auto const mappings = Brelo::MappingInfos::parse(file.get());
  for (auto const& info : mappings.infos()) {
    BreloFuzz::check(info.perms.size() < 4096 && info.path.size() < 4096);
    if (info.start < info.end) {
      auto const* const address = reinterpret_cast<void const*>(info.start);
      BreloFuzz::check(mappings.find(address).end > info.start);
    }
    if (info.perms != "---p")
      BreloFuzz::check(mappings.find(info.path, info.offset).path == info.path);
    BreloFuzz::check(fmt::format("{}", info).find(info.path) != std::string::npos);
  }
  return 0;
}
