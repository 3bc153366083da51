#include "Brelo/Plugin.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <string>
#include <unordered_map>

#include "Brelo/Assert.h"
#include "Brelo/Debug.h"
#include "Brelo/Loco.h"

namespace Brelo::Platform {

namespace {

constexpr char const* label = "Brelo::Platform";

ModuleTrace const pluginTrace("BreloPlugin");
std::unordered_map<std::string, Plugin*> plugins;

}  // namespace

Plugin* loadPlugin(char const* name) {
  LocoGuard const guard;
  if (auto const found = plugins.find(name); found != plugins.end()) {
    BRELO_TRACE(pluginTrace, 3, label, "{} already loaded", name);
    return found->second;
  }
  std::string const file = fmt::format("lib{}.so", name);
  if (::dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) {
    BRELO_TRACE(pluginTrace, 0, label, "Failed to load plugin {}: {}", file, ::dlerror());
    return nullptr;
  }
  auto const found = plugins.find(name);
  if (found == plugins.end()) {
    BRELO_FAIL(label, "Phooey -- plugin {} failed to register", name);
  }
  BRELO_TRACE(pluginTrace, 2, label, "Yay!  Plugin {} loaded", name);
  return found->second;
}

void registerPlugin(Plugin* plugin) {
  LocoGuard const guard;
  char const* const name = plugin->name();
  if (plugins.count(name) != 0) {
    BRELO_FAIL(label, "Plugin {} already registered", name);
  }
  BRELO_TRACE(pluginTrace, 2, label, "adding plugin {}", name);
  plugins[name] = plugin;
}

}  // namespace Brelo::Platform
