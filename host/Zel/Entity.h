#pragma once

#include <memory>
#include <typeindex>

#include "Zel/Export.h"

namespace Zel {

/// Base of what exists once in a process and is found by the name of its type.
///
/// A singleton is made by the first `singletonIs` of its type and is never destroyed, so it
/// may be used in static initialisers and destructors. Callers share it and drop their
/// reference when done. All of it may be called from any thread, and in a forked child.
class ZEL_EXPORT Entity {
 public:
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;
  virtual ~Entity() = default;

  /// The singleton of type T, or null if nobody has made it yet.
  template <class T>
  static std::shared_ptr<T> singletonExists() {
    return std::static_pointer_cast<T>(find(typeid(T)));
  }

  /// The singleton of type T, made now if there is none. What the constructor throws passes
  /// through and leaves no singleton. Threads that race here may each construct a T: the first
  /// one to finish stays, the others are destroyed, and all callers get the one that stayed.
  template <class T>
  static std::shared_ptr<T> singletonIs() {
    if (auto existing = singletonExists<T>()) return existing;
    return std::static_pointer_cast<T>(insert(typeid(T), std::make_shared<T>()));
  }

 protected:
  Entity() = default;

 private:
  static std::shared_ptr<Entity> find(std::type_index type);
  static std::shared_ptr<Entity> insert(std::type_index type, std::shared_ptr<Entity> made);
};

}  // namespace Zel
