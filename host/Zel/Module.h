#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <variant>
#include <vector>

#include "Zel/String.h"

/// Types that libraries announce to the host, and the generic interface through which tools reach
/// them: by name, without knowing the C++ type.
///
/// Records are tables with static storage, registered by static initialisers and never taken back.
/// Any thread may register, list and look up.

namespace Zel {

/// An argument or a result: nothing, "bool", "U32" or `Zel::String`.
using GenericValue = std::variant<std::monostate, bool, std::uint32_t, String>;

enum GenericOperation : unsigned { genericInvoke = 10, genericNotEqual = 11, genericEqual = 12 };
enum GenericOutcome : int { genericDone = 0, genericBadOperation = 1, genericBadAttribute = 2 };

struct ParameterRecord {
  char const* name;
  char const* type;
};

struct AttributeRecord {
  std::uint32_t id;
  char const* name;
  char const* resultType;            // null for none
  ParameterRecord const* parameter;  // null for none
};

/// One value type. `attributeOp` with an attribute runs it; without one it compares `self` with
/// the value that `arguments` points at, for the two comparing operations.
struct TypeRecord {
  char const* name;
  AttributeRecord const* attributes;
  std::size_t attributeCount;

  void* (*construct)();
  void* (*constructFromArguments)(GenericValue const* arguments, std::size_t count);
  void (*destruct)(void* self);
  bool (*textToValue)(void* self, String const& text);
  String (*valueToText)(void const* self);
  std::size_t (*hash)(void const* self);
  void* (*cast)(void* self, char const* typeName);
  int (*genericIfAttributeOp)(GenericValue* result, void* self, AttributeRecord const* attribute,
                              unsigned operation, void const* arguments);
};

struct ZelModule {
  char const* name;
  TypeRecord const* types;
  std::size_t typeCount;
};

/// Announces a module. Registering a record again changes nothing.
void zelModuleIs(ZelModule const& module);

/// The types announced so far.
class TypeImpl {
 public:
  /// In the order of registration.
  static std::vector<TypeRecord const*> types();
  /// Null if there is no such type.
  static TypeRecord const* type(String const& name);
};

class GenericIfImpl {
 public:
  /// Runs an attribute of a fresh value of the type. An unknown type or attribute, and an argument
  /// of the wrong type, throw `std::invalid_argument`; what the attribute throws passes through.
  static GenericValue invoke(String const& type, String const& attribute,
                             GenericValue const& argument = {});

  /// For types whose values cannot be hashed; a `std::logic_error`.
  [[noreturn]] static void throwUnhashableException(char const* type);
};

}  // namespace Zel
