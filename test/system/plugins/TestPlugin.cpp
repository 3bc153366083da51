#include <string>

#include "Brelo/Counters.h"

namespace {

// Built once for each name that is to be registered, PLUGIN_NAME.
class TestPlugin final : public Brelo::CountersPlugin {
 public:
  TestPlugin() { Brelo::Platform::registerPlugin(this); }
  char const* name() override { return PLUGIN_NAME; }
  void groupIs(char const* name) override { group_ = name; }
  unsigned long* counter(char const* name, unsigned long* fallback) override {
    return group_ + name == "groupcounter" ? &counter_ : fallback;
  }

 private:
  std::string group_;
  unsigned long counter_ = 42;
} plugin;

}  // namespace
