#pragma once

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "BreloDaemon/ChildTask.h"

namespace BreloDaemon::Impl {

/// All that a child needs between its making and its program, laid out beforehand: it shares this
/// memory with its parent, which stands still meanwhile, and may neither allocate nor lock.
struct ChildImage {
  struct Move {
    int from;
    int to;
  };

  /// `descriptors` by their number in the child, which are open here.
  ChildImage(ChildProgram const& program, std::map<int, int> const& descriptors);
  ChildImage(ChildImage const&) = delete;
  ChildImage& operator=(ChildImage const&) = delete;

  std::vector<std::string> paths;  // to be tried in turn
  std::vector<char const*> arguments;
  std::vector<char const*> environment;
  char const* directory;  // null for the parent's
  ChildProgram::Group group;
  std::vector<Move> moves;
  int aboveMoves;                                           // no number from here on is moved to
  std::vector<std::pair<unsigned, unsigned>> closedRanges;  // first and last

  // The child's answer.
  int error = 0;
  char const* failed = nullptr;  // what it was about
};

/// What the child does. Ends in the program, or in the answer.
int becomeProgram(void* image) noexcept;

}  // namespace BreloDaemon::Impl
