#include "Brelo/platform/Pending.h"

#include <algorithm>
#include <boost/core/demangle.hpp>
#include <ostream>
#include <tuple>
#include <typeinfo>
#include <utility>

#include "Brelo/platform/Backend.h"

namespace Brelo::Platform {

namespace {

template <class Handler>
std::string typeOf(Handler const& handler) {
  return boost::core::demangle(typeid(handler).name());
}

std::string whenDue(double remaining) {
  return remaining > 0 ? fmt::format("in {:.3f} s", remaining) : "due";
}

}  // namespace

std::string TimeoutHandler::handlerName() const {
  return typeOf(*this);
}

std::string CallbackHandler::handlerName() const {
  return typeOf(*this);
}

std::string FdEventHandler::handlerName() const {
  return typeOf(*this);
}

void TimeoutHandler::timerPending(PendingList& list, double remaining) const {
  list.addTimer(handlerName(), remaining);
}

void PendingList::addTimer(std::string name, double remaining) {
  entries_.push_back({Pending::Kind::timer, std::move(name), remaining});
}

void PendingList::addCallback(std::string name) {
  entries_.push_back({Pending::Kind::callback, std::move(name)});
}

void PendingList::addDescriptor(std::string name, int fd, bool reads, bool writes) {
  entries_.push_back({Pending::Kind::descriptor, std::move(name), 0, fd, reads, writes});
}

void PendingList::addIdleWheel(double remaining) {
  entries_.push_back({Pending::Kind::idleWheel, "of an idle wheel", remaining});
}

std::vector<Pending> PendingList::sorted() && {
  auto const rank = [](Pending const& entry) {
    return std::tie(entry.kind, entry.remaining, entry.fd, entry.name);
  };
  std::sort(entries_.begin(), entries_.end(),
            [&](Pending const& left, Pending const& right) { return rank(left) < rank(right); });
  return std::move(entries_);
}

void pendingRender(std::ostream& stream) {
  PendingList list;
  backend().pending(list);
  for (Pending const& entry : std::move(list).sorted()) {
    switch (entry.kind) {
      case Pending::Kind::callback:
        stream << "callback " << entry.name << " due\n";
        break;
      case Pending::Kind::timer:
      case Pending::Kind::idleWheel:
        stream << "timer " << entry.name << ' ' << whenDue(entry.remaining) << '\n';
        break;
      case Pending::Kind::descriptor:
        stream << fmt::format("descriptor {} {}{}{}\n", entry.fd, entry.name,
                              entry.reads ? " reads" : "", entry.writes ? " writes" : "");
        break;
    }
  }
}

std::size_t pendingCount() {
  PendingList list;
  backend().pending(list);
  auto const entries = std::move(list).sorted();
  return static_cast<std::size_t>(
      std::count_if(entries.begin(), entries.end(),
                    [](Pending const& entry) { return entry.kind != Pending::Kind::idleWheel; }));
}

}  // namespace Brelo::Platform
