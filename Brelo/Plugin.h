#pragma once

#include "Brelo/Export.h"

namespace Brelo::Platform {

/// An optional feature in a shared object that is looked for by name at run time.
///
/// The object "libNAME.so", found by the dynamic linker's usual search, hands one instance of a
/// class derived from this to `registerPlugin` while it is being loaded, under the same NAME.
/// What users of the plug-in call are further virtual operations of that class, which they agree
/// upon with it. The instance lives as long as its object, which is never unloaded.
///
/// After the first load the thread that made it holds the global lock (Brelo/Loco.h) for good.
/// So load plug-ins at start-up, on the thread that will run the host's loop.
class BRELO_EXPORT Plugin {
 public:
  /// The NAME that it is looked for by; lives as long as the plug-in.
  virtual char const* name() = 0;

 protected:
  Plugin() = default;
  ~Plugin() = default;  // not virtual: the slots behind name() are the plug-in's
};

/// The plug-in of that name, loaded now unless something has registered it already. Null, and a
/// trace at level 0, if its object cannot be loaded; a later call tries again. An object that
/// loads without registering the name is an assertion.
BRELO_EXPORT Plugin* loadPlugin(char const* name);

/// Any thread, static initialisers included; the caller keeps the plug-in for ever. A name that is
/// taken is an assertion.
BRELO_EXPORT void registerPlugin(Plugin* plugin);

}  // namespace Brelo::Platform
