#pragma once

#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"
#include "Zel/Trace.h"

namespace ZelBrelo {

/// The trace handler: a handle on the host facility of its name, whose mask word it reads.
/// Made by `Brelo::Platform::getDebugHandler`.
class BRELO_EXPORT ZelDebug : public Zel::TraceHandle, public Brelo::Platform::DebugHandler {
 public:
  /// Makes the host facility if there is none of that name.
  explicit ZelDebug(std::string const& name);

  void enabledIs(unsigned short level, bool enabled) override;
  void dump(Brelo::Platform::DebugStream& stream, unsigned short level, char const* file,
            char const* func, int line) const override;
};

}  // namespace ZelBrelo
