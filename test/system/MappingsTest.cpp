#include "Brelo/Mappings.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/mman.h>

#include <optional>

#include "support/ChildProcess.h"

using Brelo::PidMappings;
using Pointer = char const*;

TEST(Mappings, AreReadUpToADeletedFileAndFound) {
  std::string text =
      "2000-3000 ---p 00001000 08:1f 20                   /bin/x\n"
      "3000-4000 r-xp 00001000 08:1f 20                   /bin/x\n"
      "5000-6000 rw-p 00000000 00:00 0 \n"
      "6000-7000 rw-p 00000000 00:00 0\n"
      "7000-8000 r--p 00000000 08:1f 21 /bin/gone (deleted)\n"
      "9000-a000 r--p 00000000 08:1f 22 /bin/beyond\n";
  auto const mappings = Brelo::MappingInfos::parse(fmemopen(text.data(), text.size(), "r"));
  ASSERT_EQ(mappings.infos().size(), 5U);
  EXPECT_EQ(fmt::format("{}", mappings.find("/bin/x", 0x1000)),
            "MappingInfo { start:0x3000 end:0x4000 perms:r-xp offset:0x1000 major:0x8 minor:0x1f "
            "inode:0x20 path:/bin/x }");
  EXPECT_EQ(mappings.infos().back().path, "/bin/gone");
  EXPECT_EQ(mappings.find(reinterpret_cast<Pointer>(0x3fff)).start, 0x3000U);
  EXPECT_EQ(mappings.find(reinterpret_cast<Pointer>(0x4000)).start, 0U);
}

TEST(Mappings, NameATypeOfAnotherProcessThroughItsVirtualTable) {
  std::string error;
  // A sanitizer maps a deleted file, at which the list ends.
  if (PidMappings::populate(getpid()).find(&error).path != "[stack]") GTEST_SKIP() << "cut short";
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Pointer tables[5];
  std::optional<BreloTest::ChildProcess> child(std::in_place, [&] {
    // So that the library gets another place here than there.
    void* const some = mmap(nullptr, 1 << 26, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void* const library = dlopen(FOREIGN_TYPE_LIBRARY, RTLD_NOW);
    auto* const table = reinterpret_cast<Pointer (*)(int)>(dlsym(library, "foreignTable"));
    Pointer const all[] = {table(0), table(1), table(2), table(3), static_cast<Pointer>(some) + 64};
    return write(ends[1], all, sizeof all);
  });
  ASSERT_EQ(read(ends[0], tables, sizeof tables), ssize_t{sizeof tables});
  auto const [typed, strange, untyped, crossing, anonymous] = tables;
  int const pid = child->pid;
  EXPECT_STREQ(Brelo::Util::typenameFromVptr(pid, typed, error), "11ForeignType");
  auto const there = PidMappings::mappingInfos(pid).find(typed);
  auto const mine = PidMappings::mappingInfos(getpid());
  auto const here = mine.find(there.path, there.offset);
  EXPECT_NE(here.start, there.start);

  // The page behind `crossing` is there unless the kernel was told to do without it.
  bool const paged = mine.find(reinterpret_cast<Pointer>(0xffffffffff600ff8)).end > 0;
  std::pair<void const*, char const*> const failures[] = {
      {reinterpret_cast<Pointer>(0x10), "Could not find mapping for vptr:{} otherPid:{}"},
      {reinterpret_cast<Pointer>(there.start) + 7, "Bad vptr:{} otherPid:{} mapping:{}"},
      {reinterpret_cast<Pointer>(there.end) - 8, "Bad vptr:{} otherPid:{} mapping:{}"},
      {anonymous, "Failed to open library for vptr:{} otherPid:{} other mapping:MappingInfo"},
      {&error, "Failed to open library for vptr:{}"},
      {untyped, "No typeInfo mapping found for vptr:{} otherPid:{} typeInfoPtr:0x0 myMapping:Map"},
      {crossing, paged ? "TypeInfo ptr crosses mappings, vptr:{}" : "No typeInfo mapping found"},
      {strange, "TypeInfo is not stored in proper mapping. Expected:{3} but found:MappingInfo"}};
  for (auto const& [table, format] : failures) {
    EXPECT_EQ(Brelo::Util::typenameFromVptr(pid, table, error), nullptr);
    EXPECT_THAT(error,
                testing::StartsWith(fmt::format(fmt::runtime(format), table, pid, there, here)));
  }
  child.reset();
  EXPECT_TRUE(PidMappings::populate(pid).infos().empty());
  EXPECT_EQ(PidMappings::mappingInfos(pid).find(typed).start, there.start);
}
