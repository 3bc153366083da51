#include "Brelo/system/DescriptorWalk.h"

#include <dirent.h>

#include <utility>

#include "Brelo/Exception.h"

namespace Brelo::Impl {

namespace {

/// The next entry; none at the end, in a directory that did not open, and where a process went
/// away in the middle. DirNode has traced why.
dirent const* nextEntry(DirNode const& directory) {
  try {
    return directory.isOpen() ? directory.readEntry() : nullptr;
  } catch (RuntimeException const&) {
    return nullptr;
  }
}

}  // namespace

DescriptorWalk::DescriptorWalk(Platform::DebugHandler& handler,
                               std::function<bool(std::string const&)> wanted)
    : handler_(handler), wanted_(std::move(wanted)), proc_(handler, "/proc", nullptr) {}

bool DescriptorWalk::next() {
  for (;;) {
    if (descriptors_) {
      if (dirent const* const entry = nextEntry(*descriptors_)) {
        number_ = entry->d_name;
        return true;
      }
    }
    do {
      dirent const* const entry = nextEntry(proc_);
      if (entry == nullptr) return false;
      process_ = entry->d_name;
    } while (!wanted_(process_));
    descriptors_.emplace(handler_, "/proc/" + process_ + "/fd", nullptr);
  }
}

}  // namespace Brelo::Impl
