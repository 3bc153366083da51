#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Check.h"

/// Feeds every file of the folders named on the command line to the target. An empty folder fails:
/// a replay that replays nothing proves nothing.

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      std::vector<char> const text{std::istreambuf_iterator<char>(file), {}};
      std::vector<std::uint8_t> const bytes(text.begin(), text.end());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++replayed;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
