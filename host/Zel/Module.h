#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <variant>
#include <vector>

#include "Zel/Export.h"
#include "Zel/String.h"

/// Types that libraries announce to the host, and the generic interface through which tools reach
/// them: by name, without knowing the C++ type.
///
/// Records are tables with static storage, registered by static initialisers and never taken back.
/// Any thread may register, list and look up.

namespace Zel {

/// An argument or a result: nothing, "bool", "U32" or `Zel::String`.
using GenericValue = std::variant<std::monostate, bool, std::uint32_t, String>;

/// What `TypeRecord::genericIfAttributeOp` is asked to do.
enum GenericOperation : unsigned {
  genericInvoke = 10,    ///< run the attribute
  genericNotEqual = 11,  ///< compare
  genericEqual = 12      ///< compare
};

/// What `TypeRecord::genericIfAttributeOp` returns.
enum GenericOutcome : int {
  genericDone = 0,          ///< `result` is set, if the operation has one
  genericBadOperation = 1,  ///< nothing was done
  genericBadAttribute = 2   ///< nothing was done: the type does not have it
};

/// What an attribute takes.
struct ParameterRecord {
  char const* name;  ///< for people
  char const* type;  ///< as in `GenericValue`
};

/// One operation of a type.
struct AttributeRecord {
  std::uint32_t id;                  ///< unique within its type
  char const* name;                  ///< unique within its type
  char const* resultType;            ///< as in `GenericValue`; null for none
  ParameterRecord const* parameter;  ///< null for none
};

/// One value type. `self` is what a constructor of the record has returned.
struct TypeRecord {
  char const* name;                   ///< qualified, unique in the process
  AttributeRecord const* attributes;  ///< `attributeCount` of them
  std::size_t attributeCount;         ///< may be 0

  void* (*construct)();  ///< a new value, for `destruct`
  /// A new value made of `count` arguments, for `destruct`.
  void* (*constructFromArguments)(GenericValue const* arguments, std::size_t count);
  void (*destruct)(void* self);                         ///< ends the value
  bool (*textToValue)(void* self, String const& text);  ///< false: `text` is no such value
  String (*valueToText)(void const* self);              ///< what `textToValue` reads
  std::size_t (*hash)(void const* self);                ///< throws if values cannot be hashed
  void* (*cast)(void* self, char const* typeName);      ///< null if it is no such type
  /// With an attribute runs it, with `arguments` an array of `GenericValue`; without one it
  /// compares `self` with the value that `arguments` points at. A `GenericOutcome`.
  int (*genericIfAttributeOp)(GenericValue* result, void* self, AttributeRecord const* attribute,
                              unsigned operation, void const* arguments);
};

/// What one library announces.
struct ZelModule {
  char const* name;         ///< for people
  TypeRecord const* types;  ///< `typeCount` of them
  std::size_t typeCount;    ///< may be 0
};

/// Announces a module. Registering a record again changes nothing.
ZEL_EXPORT void zelModuleIs(ZelModule const& module);

/// The types announced so far.
class ZEL_EXPORT TypeImpl {
 public:
  /// In the order of registration.
  static std::vector<TypeRecord const*> types();
  /// Null if there is no such type.
  static TypeRecord const* type(String const& name);
};

/// Calls through the records, for tools.
class ZEL_EXPORT GenericIfImpl {
 public:
  /// Runs an attribute of a fresh value of the type. An unknown type or attribute, and an argument
  /// of the wrong type, throw `std::invalid_argument`; what the attribute throws passes through.
  static GenericValue invoke(String const& type, String const& attribute,
                             GenericValue const& argument = {});

  /// For types whose values cannot be hashed; a `std::logic_error`.
  [[noreturn]] static void throwUnhashableException(char const* type);
};

}  // namespace Zel
