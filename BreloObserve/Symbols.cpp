#include "BreloObserve/internal/Symbols.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "BreloDaemon/Descriptor.h"

namespace BreloObserve::Impl {

namespace {

struct Table {
  ElfW(Sym) const* symbols = nullptr;
  std::size_t count = 0;
  char const* names = nullptr;
  std::size_t namesSize = 0;
};

char const* functionIn(Table const& table, std::uintptr_t offset) {
  ElfW(Sym) const* best = nullptr;
  for (std::size_t i = 0; i < table.count; ++i) {
    ElfW(Sym) const& symbol = table.symbols[i];
    unsigned const type = ELF64_ST_TYPE(symbol.st_info);
    if (symbol.st_shndx == SHN_UNDEF || (type != STT_FUNC && type != STT_GNU_IFUNC)) continue;
    if (offset - symbol.st_value >= symbol.st_size || symbol.st_name >= table.namesSize) continue;
    if (best == nullptr || symbol.st_value > best->st_value) best = &symbol;
  }
  return best == nullptr ? nullptr : table.names + best->st_name;
}

/// How many symbols a table has that is reached by the hash of their names.
std::size_t countByHash(std::uint32_t const* hash) {
  std::uint32_t const buckets = hash[0];
  std::uint32_t const first = hash[1];
  std::uint32_t const* const bucket = hash + 4 + hash[2] * (sizeof(ElfW(Addr)) / sizeof *hash);
  std::uint32_t const* const chains = bucket + buckets;
  std::uint32_t last = buckets == 0 ? 0 : *std::max_element(bucket, bucket + buckets);
  if (last < first) return first;
  while ((chains[last - first] & 1) == 0)
    ++last;
  return last + 1;
}

/// What the module exports, from its memory.
Table exportsOf(link_map const& module) {
  // The linker has made addresses of offsets, but for what the kernel has loaded.
  auto const at = [&](ElfW(Addr) value) {
    return reinterpret_cast<void const*>(value < module.l_addr ? value + module.l_addr : value);
  };
  Table table;
  for (ElfW(Dyn) const* entry = module.l_ld; entry->d_tag != DT_NULL; ++entry) {
    void const* const address = at(entry->d_un.d_ptr);
    switch (entry->d_tag) {
      case DT_SYMTAB:
        table.symbols = static_cast<ElfW(Sym) const*>(address);
        break;
      case DT_STRTAB:
        table.names = static_cast<char const*>(address);
        break;
      case DT_STRSZ:
        table.namesSize = entry->d_un.d_val;
        break;
      case DT_HASH:
        table.count = static_cast<std::uint32_t const*>(address)[1];
        break;
      case DT_GNU_HASH:
        table.count = countByHash(static_cast<std::uint32_t const*>(address));
        break;
      default:
        break;
    }
  }
  if (table.symbols == nullptr || table.names == nullptr) return {};
  return table;
}

/// The program's file, as it was started, mapped for good.
class ProgramFile {
 public:
  ProgramFile() {
    BreloDaemon::Descriptor const file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (file.get() == -1 || fstat(file.get(), &status) != 0) return;
    auto const size = static_cast<std::size_t>(status.st_size);
    void* const mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (mapping == MAP_FAILED) return;
    bytes_ = static_cast<char const*>(mapping);
    size_ = size;
    findTable();
    char text[4096];
    ssize_t const length = readlink("/proc/self/exe", text, sizeof text);
    if (length > 0) path_.assign(text, static_cast<std::size_t>(length));
  }

  /// All functions, those that are not exported included; empty in a stripped program.
  Table const& table() const { return table_; }
  std::string const& path() const { return path_; }

 private:
  template <class Entry>
  Entry const* entries(std::size_t offset, std::size_t count) const {
    if (offset % alignof(Entry) != 0 || offset > size_ || count > (size_ - offset) / sizeof(Entry))
      return nullptr;
    return reinterpret_cast<Entry const*>(bytes_ + offset);
  }

  void findTable() {
    auto const* const header = entries<ElfW(Ehdr)>(0, 1);
    if (header == nullptr) return;
    auto const* const sections = entries<ElfW(Shdr)>(header->e_shoff, header->e_shnum);
    if (sections == nullptr) return;
    for (std::size_t i = 0; i < header->e_shnum; ++i) {
      ElfW(Shdr) const& section = sections[i];
      if (section.sh_type != SHT_SYMTAB || section.sh_link >= header->e_shnum) continue;
      ElfW(Shdr) const& names = sections[section.sh_link];
      std::size_t const count = section.sh_size / sizeof(ElfW(Sym));
      Table const table{entries<ElfW(Sym)>(section.sh_offset, count), count,
                        entries<char>(names.sh_offset, names.sh_size), names.sh_size};
      if (table.symbols == nullptr || table.names == nullptr) continue;
      if (names.sh_size == 0 || table.names[names.sh_size - 1] != '\0') continue;
      table_ = table;
    }
  }

  char const* bytes_ = nullptr;
  std::size_t size_ = 0;
  Table table_;
  std::string path_;
};

}  // namespace

Symbol symbolAt(std::uintptr_t address) {
  dl_find_object found;
  if (_dl_find_object(reinterpret_cast<void*>(address), &found) != 0) return {{}, address, nullptr};
  link_map const& module = *found.dlfo_link_map;
  Symbol symbol{module.l_name, address - module.l_addr, nullptr};
  if (symbol.module.empty()) {
    static ProgramFile const& program = *new ProgramFile;
    symbol.module = program.path();
    symbol.function = functionIn(program.table(), symbol.offset);
  }
  if (symbol.function == nullptr) symbol.function = functionIn(exportsOf(module), symbol.offset);
  return symbol;
}

}  // namespace BreloObserve::Impl
