#include "Brelo/DirNode.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "Brelo/system/UtilTrace.h"

namespace Brelo {

namespace {

bool endsWith(std::string_view name, std::string_view ending) {
  return name.size() >= ending.size() && name.substr(name.size() - ending.size()) == ending;
}

}  // namespace

DirNode::DirNode(Platform::DebugHandler& handler) : Debuggable(handler) {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path_);
}

DirNode::DirNode(Platform::DebugHandler& handler, std::string const& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(handler), parent_(std::move(parent)), path_(path) {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path_);
  openDir();
}

// The source keeps its share of the stream, and the handler that its destructor traces through.
DirNode::DirNode(DirNode&& other) noexcept
    : parent_(std::move(other.parent_)), path_(std::move(other.path_)) {
  debugHandler_ = other.debugHandler_;
  dir_ = other.dir_;
}

DirNode::~DirNode() {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path_);
  if (!closeDir()) {
    BRELO_TRACE(*debugHandler_, 1, "DirNode", "failed to close {} errno: {}", path_,
                strerror(errno));
  }
}

void DirNode::pathIs(std::string const& path) {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path);
  if (&path == &path_) return;
  path_ = path;
  openDir();
}

void DirNode::openDir() {
  if (!closeDir()) {
    BRELO_TRACE(*debugHandler_, 1, "DirNode", "failed to close {} before reopening. errno: {}",
                path_, strerror(errno));
  }
  std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(path_.c_str()), closedir);
  if (opened != nullptr) {
    dir_.reset(opened.get(), [](DIR*) {});  // closeDir() closes, and can tell of a failure
    opened.release();
    return;
  }
  int const error = errno;
  unsigned short const level = error == ENOENT || error == EACCES || error == ENOTDIR ? 9 : 1;
  BRELO_TRACE(*debugHandler_, level, "DirNode", "failed to open {} errno: {}", path_,
              strerror(error));
}

/// Lets go of the stream; false, with `errno` set, if it was to be closed and that failed.
bool DirNode::closeDir() {
  bool const closed = dir_.use_count() != 1 || closedir(dir_.get()) == 0;
  dir_ = nullptr;
  return closed;
}

dirent const* DirNode::readEntry() const {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path_);
  if (!isOpen()) {
    BRELO_TRACE(*debugHandler_, 5, "DirNode", "cannot read {} because the directory is not open",
                path_);
    return nullptr;
  }
  errno = 0;
  dirent const* const entry = readdir(dir_.get());
  if (entry == nullptr && errno != 0) {
    BRELO_THROW(*debugHandler_, "DirNode", "failed to read {} errno: {}", path_, strerror(errno));
  }
  return entry;
}

void DirNode::rewind() const {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {}", path_);
  if (!isOpen()) {
    BRELO_THROW(*debugHandler_, "DirNode", "cannot rewind {} because the directory is not open",
                path_);
  }
  rewinddir(dir_.get());
}

std::vector<std::string> DirNode::findFiles(std::string const& extension) const {
  BRELO_TRACE(*debugHandler_, 9, "DirNode", "path: {} extension: {}", path_, extension);
  if (!isOpen()) {
    BRELO_THROW(*debugHandler_, "DirNode",
                "cannot find {} files in {} because the directory is not open", extension, path_);
  }
  rewinddir(dir_.get());
  std::vector<std::string> names;
  while (dirent const* const entry = readEntry()) {
    if (entry->d_type != DT_REG && entry->d_type != DT_LNK) continue;
    std::string const name = entry->d_name;
    if (endsWith(name, extension)) {
      BRELO_TRACE(*debugHandler_, 8, "DirNode", "found file with extension {}: {}", extension,
                  name);
      names.push_back(name);
    } else {
      BRELO_TRACE(*debugHandler_, 9, "DirNode", "skipping file: {}", name);
    }
  }
  return names;
}

}  // namespace Brelo
