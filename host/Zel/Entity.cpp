#include "Zel/Entity.h"

#include <pthread.h>

#include <map>
#include <mutex>
#include <utility>

namespace Zel {

namespace {

struct Singletons {
  std::mutex lock;
  std::map<std::type_index, std::shared_ptr<Entity>> byType;
};

Singletons& singletons() {
  static Singletons& instance = []() -> Singletons& {
    // A child must not inherit the lock from a thread that it does not have.
    ::pthread_atfork([] { singletons().lock.lock(); }, [] { singletons().lock.unlock(); },
                     [] { singletons().lock.unlock(); });
    return *new Singletons;
  }();
  return instance;
}

// Ahead of the fork handlers of those who use this, so that theirs never meet the lock held.
[[maybe_unused]] Singletons& registeredAtLoad = singletons();

}  // namespace

std::shared_ptr<Entity> Entity::find(std::type_index type) {
  std::lock_guard<std::mutex> const guard(singletons().lock);
  auto const found = singletons().byType.find(type);
  return found == singletons().byType.end() ? nullptr : found->second;
}

std::shared_ptr<Entity> Entity::insert(std::type_index type, std::shared_ptr<Entity> made) {
  std::lock_guard<std::mutex> const guard(singletons().lock);
  return singletons().byType.try_emplace(type, std::move(made)).first->second;
}

}  // namespace Zel
