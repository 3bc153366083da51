#include "ZelBrelo/BacktraceTracker.h"

#include <iterator>
#include <locale>
#include <sstream>

#include "Brelo/Backtrace.h"

namespace ZelBrelo {

using Zel::GenericValue;

void BacktraceTracker::clear() const {
  Brelo::BacktraceTracker::clear();
}

std::uint32_t BacktraceTracker::capacity() const {
  return Brelo::BacktraceTracker::capacity();
}

void BacktraceTracker::capacityIs(std::uint32_t capacity) const {
  Brelo::BacktraceTracker::capacityIs(capacity);
}

Zel::String BacktraceTracker::printAll() const {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  Brelo::BacktraceTracker::printAll(text);
  return text.str();
}

bool BacktraceTracker::enabled() const {
  return Brelo::BacktraceTracker::enabled();
}

void BacktraceTracker::enabledIs(bool on) const {
  Brelo::BacktraceTracker::enabledIs(on);
}

void BacktraceTracker::backtraceIs(Zel::String const& msg) const {
  char const* const text = msg.charPtr();
  Brelo::BacktraceTracker::backtraceIs(text == nullptr ? std::string() : std::string(text));
}

namespace {

constexpr char const* typeName = "ZelBrelo::BacktraceTracker";

enum Attribute : std::uint32_t {
  clearId = 2,
  capacityId,
  capacityIsId,
  printAllId,
  enabledId,
  enabledIsId,
  backtraceIsId,
};

constexpr Zel::ParameterRecord capacityParameter{"capacity", "U32"};
constexpr Zel::ParameterRecord onParameter{"on", "bool"};
constexpr Zel::ParameterRecord msgParameter{"msg", "Zel::String"};

constexpr Zel::AttributeRecord attributes[] = {
    {clearId, "clear", nullptr, nullptr},
    {capacityId, "capacity", "U32", nullptr},
    {capacityIsId, "capacityIs", nullptr, &capacityParameter},
    {printAllId, "printAll", "Zel::String", nullptr},
    {enabledId, "enabled", "bool", nullptr},
    {enabledIsId, "enabledIs", nullptr, &onParameter},
    {backtraceIsId, "backtraceIs", nullptr, &msgParameter},
};

void* construct() {
  return new BacktraceTracker;
}

void* constructFromArguments(GenericValue const*, std::size_t) {
  return new BacktraceTracker;
}

void destruct(void* self) {
  delete static_cast<BacktraceTracker*>(self);
}

bool textToValue(void*, Zel::String const&) {
  return true;
}

Zel::String valueToText(void const*) {
  return {};
}

std::size_t hash(void const*) {
  Zel::GenericIfImpl::throwUnhashableException(typeName);
}

void* cast(void* self, char const* wanted) {
  return Zel::String(wanted) == Zel::String(typeName) ? self : nullptr;
}

int compare(GenericValue* result, void* self, unsigned operation, void const* other) {
  bool const equal =
      *static_cast<BacktraceTracker const*>(self) == *static_cast<BacktraceTracker const*>(other);
  switch (operation) {
    case Zel::genericNotEqual:
      *result = !equal;
      return Zel::genericDone;
    case Zel::genericEqual:
      *result = equal;
      return Zel::genericDone;
    default:
      return Zel::genericBadOperation;
  }
}

int genericIfAttributeOp(GenericValue* result, void* self, Zel::AttributeRecord const* attribute,
                         unsigned operation, void const* arguments) {
  if (attribute == nullptr) return compare(result, self, operation, arguments);
  if (attribute->id < clearId || attribute->id > backtraceIsId) return Zel::genericBadAttribute;
  if (operation != Zel::genericInvoke) return Zel::genericBadOperation;
  auto const& tracker = *static_cast<BacktraceTracker const*>(self);
  auto const* const values = static_cast<GenericValue const*>(arguments);
  switch (attribute->id) {
    case clearId:
      tracker.clear();
      break;
    case capacityId:
      *result = tracker.capacity();
      break;
    case capacityIsId:
      tracker.capacityIs(std::get<std::uint32_t>(values[0]));
      break;
    case printAllId:
      *result = tracker.printAll();
      break;
    case enabledId:
      *result = tracker.enabled();
      break;
    case enabledIsId:
      tracker.enabledIs(std::get<bool>(values[0]));
      break;
    case backtraceIsId:
      tracker.backtraceIs(std::get<Zel::String>(values[0]));
      break;
  }
  return Zel::genericDone;
}

constexpr Zel::TypeRecord types[] = {{
    typeName,
    attributes,
    std::size(attributes),
    construct,
    constructFromArguments,
    destruct,
    textToValue,
    valueToText,
    hash,
    cast,
    genericIfAttributeOp,
}};

}  // namespace

Zel::ZelModule const _BacktraceTracker_a103068c1ecd3333_zelModule{"BacktraceTracker", types,
                                                                  std::size(types)};

namespace {

[[maybe_unused]] bool const registered =
    (Zel::zelModuleIs(_BacktraceTracker_a103068c1ecd3333_zelModule), true);

}  // namespace

}  // namespace ZelBrelo
