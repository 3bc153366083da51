#pragma once

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

namespace Brelo {

/// One directory, open for reading, with a hold on the one that it was reached through.
///
/// A directory that cannot be opened makes a node that is not open: that is traced and never
/// thrown, at level 9 where a scan must expect it (missing, forbidden, not a directory) and at
/// level 1 otherwise. What fails in reading is a `RuntimeException`. Belongs to one thread.
/// Copies, and what is left of a node moved from, share one stream and one place in it until they
/// are opened anew; the last of them closes it.
class BRELO_EXPORT DirNode : public Debuggable {
 public:
  /// Not open, without path or parent.
  explicit DirNode(Platform::DebugHandler& handler);
  /// Opens `path`. The parent is kept alive, no more; it may be null.
  DirNode(Platform::DebugHandler& handler, std::string const& path,
          std::shared_ptr<DirNode> parent);
  DirNode(DirNode const&) = default;  ///< shares the stream
  /// Takes path and parent; `other` keeps its share of the stream.
  DirNode(DirNode&& other) noexcept;
  ~DirNode();

  /// Opens another path. Does nothing if `path` is this node's own string (`path()`).
  void pathIs(std::string const& path);
  /// Opens the path anew.
  void openDir();

  /// The next entry, "." and ".." included, valid until the next call; null at the end and on a
  /// node that is not open.
  dirent const* readEntry() const;
  /// Back to the first entry; throws if the node is not open.
  void rewind() const;
  /// The names with that ending of all regular files and links, in the directory's order; every
  /// one of them for an empty ending. Throws if the node is not open. Leaves the place at the end.
  std::vector<std::string> findFiles(std::string const& extension) const;

  bool isOpen() const { return dir_ != nullptr; }                     ///< there is a stream to read
  std::string const& path() const { return path_; }                   ///< as it was given
  std::shared_ptr<DirNode> const& parent() const { return parent_; }  ///< may be null

 private:
  bool closeDir();

  std::shared_ptr<DIR> dir_;
  std::shared_ptr<DirNode> parent_;
  std::string path_;
};

}  // namespace Brelo
