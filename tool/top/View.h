#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "top/Line.h"
#include "top/Table.h"
#include "top/Watched.h"

namespace Tool {

/// What of a daemon is looked at, and how.
struct View {
  enum class Pane { none, events, stalls };
  TableOrder order;
  bool sinceClear = false;  ///< the figures of the whole window instead of the latest interval
  bool paused = false;
  bool help = false;
  Pane pane = Pane::none;
  double quantumNs = 20e6;  ///< runs beyond it alarm
  std::string selected;     ///< the key of a row, see `rowKey`
  std::size_t scrolled = 0;

  /// The figures that it shows of this daemon, or null.
  Figures const* figures(Watched const& daemon) const {
    return sinceClear ? daemon.window() : daemon.latest();
  }
};

/// What tells a row from all others, however the table is sorted.
std::string rowKey(Row const& row);

/// The parts of a screen. None of the lines is cut to the width; the head and the footer use it to
/// align.
/// @{
std::vector<Line> headLines(Watched const& daemon, View const& view, Watched::Clock::time_point now,
                            std::size_t width);
Line tableTitle(View const& view, std::size_t width);
Line tableLine(Row const& row, Figures const& figures, View const& view, std::size_t width);
std::vector<Line> paneLines(Watched const& daemon, View::Pane pane, std::size_t count);
std::vector<Line> helpLines();
/// @}

}  // namespace Tool
