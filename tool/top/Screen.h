#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "top/View.h"

namespace Tool {

/// What `brelo top` shows and how keys change it, apart from any terminal: the daemons as tabs, and
/// for each of them a view.
class Screen {
 public:
  using Clock = Watched::Clock;
  enum class Key { up, down, pageUp, pageDown, home, end, enter, escape, erase, tab, backTab };

  /// The daemons have to outlive it.
  Screen(std::vector<std::unique_ptr<Watched>> const& daemons, Clock::duration interval,
         View const& view);

  /// The whole screen: as many lines as there are rows at most.
  std::vector<Line> lines(Clock::time_point now, std::size_t rows, std::size_t width);
  /// What scripts get of a daemon: its head and its whole table.
  static std::vector<Line> plain(Watched const& daemon, View const& view, Clock::time_point now,
                                 std::size_t width);

  void handleKey(Key key);
  /// A character in UTF-8.
  void handleText(std::string const& text);
  bool ended() const { return ended_; }

 private:
  enum class Asking { nothing, filter, clear };
  struct Tab {
    Watched* daemon;
    View view;
  };

  Tab& tab() { return tabs_[current_]; }
  void handleCommand(char command);
  std::size_t selectedRow() const;  // the first one if what was selected has gone
  void move(long rows);
  void fold();
  void foldAll();
  void tabIs(std::size_t index);
  void intervalIs(Clock::duration interval);
  void paneIs(View::Pane pane);
  Line tabLine() const;
  Line footer() const;
  void addTable(std::vector<Line>& lines, std::size_t rows, std::size_t width);

  std::vector<Tab> tabs_;
  std::size_t current_ = 0;
  Clock::duration interval_;
  Asking asking_ = Asking::nothing;
  std::string typed_;
  bool ended_ = false;
  std::vector<Row> rows_;  // as shown last
  std::size_t page_ = 1;   // rows of the table that fit
};

}  // namespace Tool
