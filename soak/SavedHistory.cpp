#include "SavedHistory.h"

#include <unistd.h>

#include <boost/circular_buffer.hpp>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Time.h"
#include "Model.h"

namespace Soak {

void saveHistory(Brelo::TaskSchedulerRoot const& root, std::string const& file) {
  auto const& history = root.history();
  auto const& ring = history.events();
  nlohmann::json events = nlohmann::json::array();
  for (auto event = ring.rbegin(); event != ring.rend(); ++event) {
    events.push_back({event->eventTime().time_since_epoch().count(), event->eventTypeDisplay(),
                      event->eventId().string()});
  }
  nlohmann::json const document = {
      {"document", "history"},
      {"version", 1},
      {"process",
       {{"name", root.schedulerName()}, {"pid", getpid()}, {"started_unix_s", Brelo::time()}}},
      {"recorded", history.recorded()},
      {"first", history.recorded() - ring.size() + 1},
      {"events", events}};
  std::ofstream(file, std::ios::app) << document << '\n';
}

}  // namespace Soak
