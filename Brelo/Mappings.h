#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"

namespace Brelo {

/// One line of a process's memory map. A `start` of 0, the default, means that no mapping was
/// found. All numbers are read as hexadecimal, the inode too.
struct MappingInfo {
  std::uint64_t start = 0;   ///< the first address
  std::uint64_t end = 0;     ///< behind the last address
  std::string perms;         ///< as "r-xp"
  std::uint64_t offset = 0;  ///< of `start` in the file, in bytes
  std::uint32_t major = 0;   ///< of the file's device
  std::uint32_t minor = 0;   ///< of the file's device
  std::uint64_t inode = 0;   ///< 0 without a file
  std::string path;          ///< empty for an anonymous mapping
};

/// A process's mappings in the order of the file: a plain value, not kept up to date. Both `find`
/// walk it from the start and give the default MappingInfo if nothing fits.
class BRELO_EXPORT MappingInfos {
 public:
  /// Reads text as the kernel writes it, up to the first line that cannot be read. The rest of a
  /// line whose path holds a blank, such as a deleted file's, cannot: the list ends with that path.
  static MappingInfos parse(std::FILE* maps);

  /// Appends.
  void insert(MappingInfo const& info) { infos_.push_back(info); }
  /// The first mapping with `start <= address < end`.
  MappingInfo find(void const* address) const;
  /// The first mapping of that path at that offset into the file that is not a guard ("---p").
  MappingInfo find(std::string const& path, unsigned long offset) const;

  std::vector<MappingInfo> const& infos() const { return infos_; }  ///< in the order of insertion

 private:
  std::vector<MappingInfo> infos_;
};

/// The mappings read so far, by process id. An entry is replaced by the next `populate` of its
/// process and never removed. Not locked: for one thread of the process.
class BRELO_EXPORT PidMappings {
 public:
  /// Reads and keeps the mappings of `pid`. If the file cannot be opened the result is empty and
  /// what was kept stays.
  static MappingInfos populate(int pid);
  /// What the latest `populate` kept; an unknown process gets an empty entry.
  static MappingInfos mappingInfos(int pid);

 private:
  static std::unordered_map<int, MappingInfos> mappings_;
};

namespace Util {

/// The mangled name of the type whose virtual table stands at `vptr` in another process. That
/// process is not stopped: the library that holds the table is loaded into this one, where it
/// stays for good so that the name stays valid, and its static initialisers run. Null with `error`
/// set on any failure; `error` is left alone on success. For the thread that uses `PidMappings`.
BRELO_EXPORT char const* typenameFromVptr(int otherPid, void const* vptr, std::string& error);

}  // namespace Util

/// The fmt form: all members by name, for people.
BRELO_EXPORT fmt::format_context::iterator formatValue(MappingInfo const& info,
                                                       fmt::format_context& context);

}  // namespace Brelo

namespace fmt {

/// What `formatValue` writes.
template <>
struct formatter<Brelo::MappingInfo> : Brelo::Impl::Formatter<Brelo::MappingInfo> {};

}  // namespace fmt
