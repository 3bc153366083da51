#include "Zel/Module.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

namespace Zel {

namespace {

struct Registry {
  std::mutex lock;
  std::vector<ZelModule const*> modules;
};

// Made on first use and never destroyed: static initialisers and destructors use it.
Registry& registry() {
  static Registry& instance = []() -> Registry& {
    // A child must not inherit the lock from a thread that it does not have.
    ::pthread_atfork([] { registry().lock.lock(); }, [] { registry().lock.unlock(); },
                     [] { registry().lock.unlock(); });
    return *new Registry;
  }();
  return instance;
}

// Ahead of the fork handlers of those who use this, so that theirs never meet the lock held.
[[maybe_unused]] Registry& registeredAtLoad = registry();

char const* typeOf(GenericValue const& value) {
  static constexpr char const* names[] = {nullptr, "bool", "U32", "Zel::String"};
  return names[value.index()];
}

bool sameType(char const* wanted, char const* given) {
  if (wanted == nullptr || given == nullptr) return wanted == given;
  return std::strcmp(wanted, given) == 0;
}

AttributeRecord const& attributeOf(TypeRecord const& type, String const& name) {
  auto const* const end = type.attributes + type.attributeCount;
  auto const* const found = std::find_if(type.attributes, end, [&](AttributeRecord const& record) {
    return name == String(record.name);
  });
  if (found == end) {
    throw std::invalid_argument(std::string(type.name) + " has no attribute " + name.str());
  }
  return *found;
}

}  // namespace

void zelModuleIs(ZelModule const& module) {
  Registry& all = registry();
  std::lock_guard<std::mutex> const guard(all.lock);
  auto const found = std::find(all.modules.begin(), all.modules.end(), &module);
  if (found == all.modules.end()) all.modules.push_back(&module);
}

std::vector<TypeRecord const*> TypeImpl::types() {
  Registry& all = registry();
  std::lock_guard<std::mutex> const guard(all.lock);
  std::vector<TypeRecord const*> types;
  for (ZelModule const* module : all.modules) {
    for (std::size_t i = 0; i < module->typeCount; ++i)
      types.push_back(&module->types[i]);
  }
  return types;
}

TypeRecord const* TypeImpl::type(String const& name) {
  for (TypeRecord const* type : types()) {
    if (name == String(type->name)) return type;
  }
  return nullptr;
}

GenericValue GenericIfImpl::invoke(String const& type, String const& attribute,
                                   GenericValue const& argument) {
  TypeRecord const* const record = TypeImpl::type(type);
  if (record == nullptr) throw std::invalid_argument("no type " + type.str());
  AttributeRecord const& wanted = attributeOf(*record, attribute);
  char const* const parameterType = wanted.parameter == nullptr ? nullptr : wanted.parameter->type;
  if (!sameType(parameterType, typeOf(argument))) {
    throw std::invalid_argument(attribute.str() + " takes " +
                                (parameterType == nullptr ? "nothing" : parameterType));
  }
  std::unique_ptr<void, void (*)(void*)> const self(record->construct(), record->destruct);
  GenericValue result;
  record->genericIfAttributeOp(&result, self.get(), &wanted, genericInvoke, &argument);
  return result;
}

void GenericIfImpl::throwUnhashableException(char const* type) {
  throw std::logic_error(std::string("values of ") + type + " cannot be hashed");
}

}  // namespace Zel
