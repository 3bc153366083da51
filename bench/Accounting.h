#pragma once

#include <boost/circular_buffer.hpp>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <chrono>
#include <cstdint>
#include <string>

namespace Bench {

/// What a callback of a peer does around its work: nothing, or the accounting of a task's run.
struct NoAccounting {
  void begin() {}
  void end() {}
};

/// Two reads of the steady clock and three entries into a ring of the last 100 events, each with
/// its type, its time and a counted reference to the name of what ran.
class Accounting {
 public:
  void begin() {
    start_ = std::chrono::steady_clock::now();
    events_.push_front({Type::runStart, start_, name_});
  }
  void end() {
    events_.push_front({Type::schedule, start_, name_});
    events_.push_front({Type::runEnd, std::chrono::steady_clock::now(), name_});
  }

 private:
  enum class Type : std::uint8_t { schedule, runStart, runEnd };
  struct Name : boost::intrusive_ref_counter<Name, boost::thread_unsafe_counter> {
    std::string text = "bench";
  };
  struct Event {
    Type type;
    std::chrono::steady_clock::time_point time;
    boost::intrusive_ptr<Name> name;
  };

  boost::intrusive_ptr<Name> name_ = new Name;
  boost::circular_buffer<Event> events_{100};
  std::chrono::steady_clock::time_point start_;
};

}  // namespace Bench
