#include "Brelo/Mappings.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace Brelo {

namespace {

constexpr std::uint64_t wordSize = sizeof(void*);

bool isNone(MappingInfo const& info) {
  return info.start == 0;
}

/// The whole word at `address` can be read without leaving the mapping.
bool holdsWord(MappingInfo const& info, std::uint64_t address) {
  return info.start <= address && address < info.end && wordSize <= info.end - address &&
         info.perms[0] == 'r';
}

std::uint64_t toNumber(void const* address) {
  return reinterpret_cast<std::uintptr_t>(address);
}

void const* toPointer(std::uint64_t address) {
  return reinterpret_cast<void const*>(address);
}

/// A word of this process's memory, at any alignment.
char const* wordAt(std::uint64_t address) {
  char const* word = nullptr;
  std::memcpy(&word, toPointer(address), sizeof word);
  return word;
}

template <class Matches>
MappingInfo firstOf(std::vector<MappingInfo> const& infos, Matches matches) {
  auto const found = std::find_if(infos.begin(), infos.end(), matches);
  return found == infos.end() ? MappingInfo() : *found;
}

}  // namespace

MappingInfos MappingInfos::parse(std::FILE* maps) {
  MappingInfos result;
  for (;;) {
    MappingInfo info;
    char text[4096];
    if (std::fscanf(maps, "%lx-%lx %4095s %lx %x:%x %lx", &info.start, &info.end, text,
                    &info.offset, &info.major, &info.minor, &info.inode) < 7) {
      return result;
    }
    info.perms = text;
    int next = std::fgetc(maps);
    while (next == ' ')
      next = std::fgetc(maps);
    if (next != '\n') {
      std::ungetc(next, maps);
      if (std::fscanf(maps, "%4095s", text) != 1) return result;
      info.path = text;
    }
    result.insert(info);
  }
}

MappingInfo MappingInfos::find(void const* address) const {
  std::uint64_t const number = toNumber(address);
  return firstOf(infos_, [number](MappingInfo const& info) {
    return info.start <= number && number < info.end;
  });
}

MappingInfo MappingInfos::find(std::string const& path, unsigned long offset) const {
  return firstOf(infos_, [&path, offset](MappingInfo const& info) {
    return info.path == path && info.offset == offset && info.perms != "---p";
  });
}

std::unordered_map<int, MappingInfos> PidMappings::mappings_;

MappingInfos PidMappings::populate(int pid) {
  char path[4096];
  std::snprintf(path, sizeof path, "/proc/%d/maps", pid);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen(path, "re"), std::fclose);
  if (file == nullptr) return {};
  return mappings_[pid] = MappingInfos::parse(file.get());
}

MappingInfos PidMappings::mappingInfos(int pid) {
  return mappings_[pid];
}

char const* Util::typenameFromVptr(int otherPid, void const* vptr, std::string& error) {
  MappingInfos const otherMappings = PidMappings::populate(otherPid);
  MappingInfo const otherMapping = otherMappings.find(vptr);
  if (isNone(otherMapping)) {
    error = fmt::format("Could not find mapping for vptr:{} otherPid:{}", vptr, otherPid);
    return nullptr;
  }
  std::uint64_t const table = toNumber(vptr);
  if (table < otherMapping.start + wordSize || table + wordSize >= otherMapping.end) {
    error = fmt::format("Bad vptr:{} otherPid:{} mapping:{}", vptr, otherPid, otherMapping);
    return nullptr;
  }
  // An empty path would be the main program to dlopen.
  if (otherMapping.path.empty() || dlopen(otherMapping.path.c_str(), RTLD_LAZY) == nullptr) {
    error = fmt::format("Failed to open library for vptr:{} otherPid:{} other mapping:{}", vptr,
                        otherPid, otherMapping);
    return nullptr;
  }

  MappingInfos const myMappings = PidMappings::populate(getpid());
  MappingInfo const myMapping = myMappings.find(otherMapping.path, otherMapping.offset);
  // Two segments of a small library may begin in one page of its file, so that the first mapping
  // there is taken in both processes. Type information's address stands in the slot before the
  // table.
  MappingInfo const otherFirst = otherMappings.find(otherMapping.path, otherMapping.offset);
  std::uint64_t const slot = table - otherFirst.start + myMapping.start - wordSize;
  MappingInfo const slotMapping = myMappings.find(toPointer(slot));
  bool const inLibrary = slotMapping.path == otherMapping.path && holdsWord(slotMapping, slot);
  void const* const typeInfoPtr = inLibrary ? wordAt(slot) : nullptr;
  std::uint64_t const typeInfo = toNumber(typeInfoPtr);
  MappingInfo const typeInfoMapping = myMappings.find(typeInfoPtr);
  if (isNone(typeInfoMapping)) {
    error =
        fmt::format("No typeInfo mapping found for vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}",
                    vptr, otherPid, typeInfoPtr, myMapping);
    return nullptr;
  }
  // Its name's address is the second word of the record.
  if (!holdsWord(typeInfoMapping, typeInfo + wordSize)) {
    error = fmt::format(
        "TypeInfo ptr crosses mappings, vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}", vptr,
        otherPid, typeInfoPtr, myMapping);
    return nullptr;
  }
  char const* const name = wordAt(typeInfo + wordSize);
  MappingInfo const nameMapping = myMappings.find(name);
  if (nameMapping.path == myMapping.path) return name;
  error = fmt::format("TypeInfo is not stored in proper mapping. Expected:{} but found:{}",
                      myMapping, nameMapping);
  return nullptr;
}

fmt::format_context::iterator formatValue(MappingInfo const& info, fmt::format_context& context) {
  return fmt::format_to(context.out(),
                        "MappingInfo {{ start:{:#x} end:{:#x} perms:{} offset:{:#x} major:{:#x} "
                        "minor:{:#x} inode:{:#x} path:{} }}",
                        info.start, info.end, info.perms, info.offset, info.major, info.minor,
                        info.inode, info.path);
}

}  // namespace Brelo
