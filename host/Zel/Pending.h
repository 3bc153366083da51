#pragma once

#include <functional>

#include "Zel/Clock.h"
#include "Zel/Export.h"
#include "Zel/FileDescriptor.h"

/// @file
/// What keeps the activity loop, for reports on it. On the loop's thread.

namespace Zel::System {

/// Calls `visit` with each notifiee of the clock that is armed or due, in no order. It may arm and
/// disarm none.
ZEL_EXPORT void forEachArmed(std::function<void(Clock::NotifieeConst const&)> const& visit);

/// Calls `visit` with each descriptor that is watched and each of its notifiees, by number. It may
/// change neither.
ZEL_EXPORT void forEachWatched(
    std::function<void(FileDescriptor const&, FileDescriptor::NotifieeConst const&)> const& visit);

}  // namespace Zel::System
