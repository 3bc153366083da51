#pragma once

#include "Brelo/Export.h"
#include "Brelo/Plugin.h"

namespace Brelo {

/// What the plug-in "TallyCountersPlugin" implements.
class BRELO_EXPORT CountersPlugin : public Platform::Plugin {
 public:
  /// Names the group of counters that those asked for from now on belong to.
  virtual void groupIs(char const* name) = 0;
  /// The address to count at for ever, which may be `fallback`; never null.
  virtual unsigned long* counter(char const* name, unsigned long* fallback) = 0;

 protected:
  ~CountersPlugin() = default;
};

/// Counters that a plug-in keeps and shows where it is installed, and that cost an increment
/// where it is not.
///
/// Making one asks for the plug-in, with the consequence for the global lock that Brelo/Plugin.h
/// tells. Copies are the same counters.
class BRELO_EXPORT Counters {
 public:
  /// A null `name` leaves the plug-in's group as it is.
  explicit Counters(char const* name);

  /// The address to count at, never null and valid for ever but for a `fallback` of the caller's.
  /// Without the plug-in it is `fallback`, or, if that is null, one that all such counters share
  /// and nobody reads.
  unsigned long* counter(char const* name, unsigned long* fallback);

 private:
  CountersPlugin* impl_;
};

}  // namespace Brelo
