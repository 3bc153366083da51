#include "BreloObserve/internal/NameTable.h"

#include <algorithm>
#include <new>

#include "Brelo/Assert.h"
#include "Brelo/TaskGroup.h"

namespace BreloObserve::Impl {

namespace {

constexpr std::size_t namesLimit = 1'000'000;

std::size_t slotsFor(std::size_t names) {
  if (names > namesLimit) BRELO_FAIL("Monitor", "more than {} names: {}", namesLimit, names);
  std::size_t slots = 2;
  while (slots < 2 * names)
    slots *= 2;
  return slots;
}

}  // namespace

NameTable::NameTable(std::size_t namesMax)
    : namesMax_(namesMax), mask_(slotsFor(namesMax) - 1), slots_(mask_ + 1) {
  accounts_.reserve(namesMax);
}

NameAccount* NameTable::make(Brelo::TaskImpl const& task) noexcept {
  if (accounts_.size() == namesMax_) return nullptr;
  std::unique_ptr<NameAccount> account(new (std::nothrow) NameAccount);
  if (account == nullptr) return nullptr;
  Brelo::TaskScheduler const& scheduler = *task.taskScheduler();
  account->group = scheduler.schedulerNameRef();
  account->name = task.taskStatsNameRef();
  account->isGroup = Brelo::TaskGroup::isParentTask(task);
  if (auto const* const group = dynamic_cast<Brelo::TaskGroup const*>(&scheduler)) {
    account->parentGroup = group->parentScheduler()->schedulerNameRef();
  }
  insert(keyOf(task), *account);
  accounts_.push_back(std::move(account));
  return accounts_.back().get();
}

void NameTable::insert(Key key, NameAccount& account) noexcept {
  std::size_t at = home(key);
  while (slots_[at].account != nullptr)
    at = (at + 1) & mask_;
  slots_[at] = {key, &account};
}

void NameTable::clearWindow() noexcept {
  auto const ended = std::remove_if(accounts_.begin(), accounts_.end(),
                                    [](auto const& each) { return each->run.count() == 0; });
  accounts_.erase(ended, accounts_.end());
  std::fill(slots_.begin(), slots_.end(), Slot{});
  latest_ = {};
  for (auto const& account : accounts_) {
    account->clearWindow();
    insert({account->group.identity(), account->name.identity()}, *account);
  }
}

}  // namespace BreloObserve::Impl
