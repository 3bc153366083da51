#include <cstdlib>

/// A library that a process of MappingsTest loads: a type, and words laid out as virtual tables
/// that are none.

struct ForeignType {
  virtual ~ForeignType() = default;
};

namespace {

void const* const strangeRecord[] = {nullptr, reinterpret_cast<void const*>(&std::abort)};
void const* const strangeTable[] = {strangeRecord, nullptr};
void const* const untypedTable[] = {nullptr, nullptr};
// The last word of a page that every process has.
void const* const crossingTable[] = {reinterpret_cast<void const*>(0xffffffffff600ff8), nullptr};

}  // namespace

extern "C" void const* foreignTable(int which) {
  static ForeignType const object;
  void const* const tables[] = {*reinterpret_cast<void const* const*>(&object), strangeTable + 1,
                                untypedTable + 1, crossingTable + 1};
  return tables[which];
}
