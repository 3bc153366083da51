#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <sstream>

#include "Zel/Entity.h"
#include "Zel/Export.h"
#include "Zel/String.h"
#include "Zel/TraceSettings.h"

namespace Zel {

using FacilityLevel = unsigned short;  ///< 0 to 15

/// A named source of trace records with its mask of enabled levels.
///
/// One for each name, made by the first TraceHandle of that name and never destroyed, so that
/// static destructors can trace. Level `n` is on when bit `1 << n` of the mask is set. The mask
/// follows the environment's TRACE list each time the environment is read. Any thread may use it.
class ZEL_EXPORT TraceFacility {
 public:
  TraceFacility(TraceFacility const&) = delete;
  TraceFacility& operator=(TraceFacility const&) = delete;

  String const& name() const { return name_; }  ///< never changes

  /// The live mask, valid for ever and never null. It changes under its readers, who do one
  /// relaxed load each time they ask.
  std::uint16_t const* levelsEnabledPtr() const { return &levels_; }

  /// Sets one level by hand, until the environment is read again. A level above 15 is ignored.
  void levelEnabledIs(FacilityLevel level, bool enabled);

 private:
  friend class TraceRegistry;
  TraceFacility(String name, std::uint16_t unsetLevels);
  void settingsAre(std::deque<TraceSetting> const& settings);

  String const name_;
  std::uint16_t const unsetLevels_;  // the mask where no setting speaks of this facility
  std::uint16_t levels_;             // accessed through relaxed __atomic builtins
};

/// A module's access to its facility. Handles of one name share one facility, hence one mask.
class ZEL_EXPORT TraceHandle {
 public:
  /// Finds or makes the facility of that name. With `allLevels` a facility made here has every
  /// level on unless a setting turns it off; one that exists already is left as it is.
  TraceHandle(String const& name, bool allLevels);
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;
  virtual ~TraceHandle() = default;

  /// Outlives the handle.
  TraceFacility& facility() const { return facility_; }

 private:
  TraceFacility& facility_;
};

/// The one manager of trace settings, to be had as `Entity::singletonIs<TraceFacilityMan>()`.
///
/// The settings are the environment variables TRACE (the list of TraceSettings.h, later items
/// win) and TRACEFORMAT (see `formatAndWriteTraceString`). They are read when the library is
/// loaded and at `doReadEnvironment()`, and count as empty in a program that has other rights than
/// its caller, who would read in its traces what he may not.
class ZEL_EXPORT TraceFacilityMan : public Entity {
 public:
  /// Computes all masks anew and takes the format over. An item that cannot be read has no
  /// effect and is reported on standard error, once for each text. Any thread may call it, but
  /// nobody may change the environment meanwhile. A format once used is kept for ever.
  void doReadEnvironment();

  /// The readable items of the list as last read, in its order.
  std::deque<TraceSetting> traceSettingSnapshot() const;
};

/// Writes one trace record, whatever the facility's mask says. Any thread may call it, static
/// initialisers and destructors too, as may a forked child. `errno` is kept; no lock is held
/// while the record goes out.
///
/// TRACEFORMAT gives the shape: `%t` local time with microseconds, in the zone at load, `%p`
/// process, `%i` thread,
/// `%n` facility, `%l` level, `%f` file, `%L` line, `%F` function, `%m` message, `%%` a percent
/// sign; any other text stands for itself, and empty means "%t %p:%i %n/%l %f:%L %m". Null
/// texts are empty. Newlines inside the record stay; those at its end become exactly one.
///
/// A record is one `write` to standard error, continued only if the kernel took a part of it:
/// records up to PIPE_BUF bytes stay whole on a pipe too. It waits for a slow reader, and is
/// lost when there is none (the SIGPIPE of a closed pipe is the program's affair).
ZEL_EXPORT void formatAndWriteTraceString(char const* facility, char const* file, int line,
                                          char const* func, char const* message, std::size_t length,
                                          FacilityLevel level);

/// Writes the stream's whole text as a record of the facility, under the same terms.
ZEL_EXPORT void traceHelper(TraceFacility const& facility, std::stringstream const& stream,
                            FacilityLevel level, char const* file, int line, char const* func);

/// Takes finished records, each with its newline, in place of standard error.
///
/// It runs on the thread that traces, on several at once, and without locks held. It may
/// allocate, block, call `traceSinkIs` and leave another `errno` behind; it may not trace,
/// since that calls it again. The text is the caller's and ends with the call.
using TraceSink = void (*)(char const* record, std::size_t length);

/// Replaces the sink; null restores standard error. A thread amid a record may still call the
/// old sink after this returns, so a sink stays callable for ever.
ZEL_EXPORT void traceSinkIs(TraceSink sink);

}  // namespace Zel
