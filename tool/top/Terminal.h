#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "top/Line.h"
#include "top/Screen.h"

namespace Tool {

/// The terminal, taken over from construction to destruction: whichever way the program ends, it is
/// given back as it was.
class Terminal {
 public:
  Terminal();  ///< a `Failure` where there is none
  ~Terminal();
  Terminal(Terminal const&) = delete;
  Terminal& operator=(Terminal const&) = delete;

  std::size_t rows() const;
  std::size_t width() const;
  void draw(std::vector<Line> const& lines);
  /// Gives the screen all keys that have been typed.
  void readKeys(Screen& screen);
  void adaptToSize();  ///< after SIGWINCH
};

}  // namespace Tool
