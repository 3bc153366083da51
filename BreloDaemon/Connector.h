#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloDaemon/Addresses.h"
#include "BreloDaemon/Stream.h"

namespace BreloDaemon {

/// How connections are made.
struct ConnectorOptions {
  /// Of the tasks of the streams; with ":connect" that of the tasks that connect.
  std::string name = "connection";
  Brelo::TaskPriority priority = Brelo::TaskPriority::normal;  ///< of these
  /// For a connection, the lookup of its name and all its addresses included.
  std::chrono::nanoseconds timeLimit = std::chrono::seconds(30);
  /// For each address, before the next one is tried.
  std::chrono::nanoseconds addressTimeLimit = std::chrono::seconds(5);
};

/// Makes connections without blocking the loop; names are looked up on threads of its own, four at
/// a time. A lookup that hangs longer than it is waited for is left to its thread, beside those.
///
/// Belongs to the scheduler's thread and may be destroyed from its callbacks. That cancels what is
/// under way, without a callback. At the orderly end
/// (see StopStep) what is under way ends as cancelled, nothing new is begun, and the streams that
/// it made are closed after what they still send.
class BRELO_EXPORT Connector {
 public:
  /// Without a stream the code says why: of the last address that failed, `std::errc::timed_out`,
  /// `operation_canceled` at the orderly end, or of `resolveCategory()`.
  using Handler = std::function<void(std::shared_ptr<Stream> stream, std::error_code error)>;

  /// Idle. Throws `std::system_error` if no descriptor is left for it.
  explicit Connector(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                     ConnectorOptions const& options = {});
  Connector(Connector const&) = delete;
  Connector& operator=(Connector const&) = delete;
  ~Connector();

  /// Tries the addresses in their order. `done` is called once, and never from in here; the stream
  /// is on the connector's scheduler, is its receiver's to keep, and sends without delay.
  void connect(Addresses const& addresses, Handler done);
  std::size_t pending() const;  ///< connections under way

 private:
  class Core;

  std::unique_ptr<Core> core_;
};

/// The failures of looking up a name; values are those of `getaddrinfo`.
BRELO_EXPORT std::error_category const& resolveCategory();

}  // namespace BreloDaemon
