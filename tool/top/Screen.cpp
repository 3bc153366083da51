#include "top/Screen.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "Text.h"

namespace Tool {

namespace {

constexpr std::size_t paneRows = 8;
constexpr std::chrono::milliseconds shortestInterval{100};
constexpr std::chrono::seconds longestInterval{60};

}  // namespace

Screen::Screen(std::vector<std::unique_ptr<Watched>> const& daemons, Clock::duration interval,
               View const& view)
    : interval_(interval) {
  for (auto const& daemon : daemons)
    tabs_.push_back({daemon.get(), view});
}

std::vector<Line> Screen::lines(Clock::time_point now, std::size_t rows, std::size_t width) {
  View const& view = tab().view;
  Watched const& daemon = *tab().daemon;
  std::vector<Line> lines;
  if (tabs_.size() > 1) lines.push_back(tabLine());
  if (view.help) {
    for (auto& line : helpLines())
      lines.push_back(std::move(line));
  } else {
    for (auto& line : headLines(daemon, view, now, width))
      lines.push_back(std::move(line));
    std::vector<Line> pane;
    if (view.pane != View::Pane::none) pane = paneLines(daemon, view.pane, paneRows);
    std::size_t const below = pane.empty() ? 1 : paneRows + 2;
    addTable(lines, rows > lines.size() + below ? rows - lines.size() - below : 0, width);
    lines.resize(std::max(lines.size(), rows > below ? rows - below : 0));
    for (auto& line : pane)
      lines.push_back(std::move(line));
  }
  // Where there is no room for all, the last row is the footer's even so.
  lines.resize(rows > 0 ? rows - 1 : 0);
  if (rows > 0) lines.push_back(footer());
  return lines;
}

std::vector<Line> Screen::plain(Watched const& daemon, View const& view, Clock::time_point now,
                                std::size_t width) {
  auto lines = headLines(daemon, view, now, width);
  if (Figures const* figures = view.figures(daemon)) {
    lines.push_back(tableTitle(view, width));
    for (auto const& row : makeTable(*figures, view.order)) {
      lines.push_back(tableLine(row, *figures, view, width));
    }
  }
  return lines;
}

void Screen::addTable(std::vector<Line>& lines, std::size_t rows, std::size_t width) {
  View& view = tab().view;
  Figures const* figures = view.figures(*tab().daemon);
  rows_ = figures ? makeTable(*figures, view.order) : std::vector<Row>();
  page_ = rows > 1 ? rows - 1 : 1;
  if (!figures || rows == 0) return;
  lines.push_back(tableTitle(view, width));
  std::size_t const selected = selectedRow();
  if (selected < rows_.size()) view.selected = rowKey(rows_[selected]);
  if (selected < view.scrolled) view.scrolled = selected;
  if (selected >= view.scrolled + page_) view.scrolled = selected - page_ + 1;
  view.scrolled = std::min(view.scrolled, rows_.size() - std::min(rows_.size(), page_));
  for (std::size_t i = view.scrolled; i < rows_.size() && i < view.scrolled + rows - 1; ++i) {
    lines.push_back(tableLine(rows_[i], *figures, view, width));
    if (i != selected) continue;
    for (auto& piece : lines.back().pieces) {
      bool const alarm = piece.style == Style::alarm;
      piece.style = alarm ? Style::alarmReverse : Style::reverse;
    }
  }
}

std::size_t Screen::selectedRow() const {
  auto const& key = tabs_[current_].view.selected;
  auto const found =
      std::find_if(rows_.begin(), rows_.end(), [&](Row const& row) { return rowKey(row) == key; });
  return found == rows_.end() ? 0 : static_cast<std::size_t>(found - rows_.begin());
}

Line Screen::tabLine() const {
  Line line;
  for (std::size_t i = 0; i < tabs_.size(); ++i) {
    Watched const& daemon = *tabs_[i].daemon;
    std::string name = daemon.window() ? daemon.window()->head.process : daemon.path();
    std::string text = " " + std::to_string(i + 1) + " " + cutTo(printable(name), 20);
    if (!daemon.trouble().empty()) text += "!";
    line.add(text + " ", i == current_ ? Style::reverse : Style::plain);
  }
  return line;
}

Line Screen::footer() const {
  if (asking_ == Asking::filter) return Line("names with: " + typed_ + "_", Style::bold);
  if (asking_ == Asking::clear) {
    return Line("clear the figures of this daemon, for all who read them? y/n", Style::bold);
  }
  return Line("q quit  h help  s sort  / filter  f fold  p pause  w window  e events  l stalls",
              Style::dim);
}

void Screen::handleKey(Key key) {
  if (asking_ != Asking::nothing) {
    if (key == Key::enter && asking_ == Asking::filter) tab().view.order.filter = typed_;
    if (key == Key::erase && asking_ == Asking::filter) {
      while (!typed_.empty() && (typed_.back() & 0xC0) == 0x80)
        typed_.pop_back();
      if (!typed_.empty()) typed_.pop_back();
      return;
    }
    if (key == Key::enter || key == Key::escape) asking_ = Asking::nothing;
    return;
  }
  auto const page = static_cast<long>(page_);
  auto const all = static_cast<long>(rows_.size());
  switch (key) {
    case Key::up:
      return move(-1);
    case Key::down:
      return move(1);
    case Key::pageUp:
      return move(-page);
    case Key::pageDown:
      return move(page);
    case Key::home:
      return move(-all);
    case Key::end:
      return move(all);
    case Key::enter:
      return fold();
    case Key::escape:
      tab().view.help = false;
      tab().view.order.filter.clear();
      return;
    case Key::tab:
      return tabIs((current_ + 1) % tabs_.size());
    case Key::backTab:
      return tabIs((current_ + tabs_.size() - 1) % tabs_.size());
    case Key::erase:
      return;
  }
}

void Screen::handleText(std::string const& text) {
  constexpr std::size_t typedMax = 60;
  if (asking_ == Asking::filter) {
    if (typed_.size() < typedMax) typed_ += printable(text);
  } else if (asking_ == Asking::clear) {
    asking_ = Asking::nothing;
    if (text == "y" || text == "Y") tab().daemon->clear();
  } else if (text.size() == 1) {
    handleCommand(text[0]);
  }
}

void Screen::handleCommand(char command) {
  View& view = tab().view;
  TableOrder& order = view.order;
  if (command >= '1' && command <= '9') tabIs(static_cast<std::size_t>(command - '1'));
  switch (command) {
    case 'q':
      ended_ = true;
      return;
    case 'h':
    case '?':
      view.help = !view.help;
      return;
    case 's':
      order.sort = (order.sort + 1) % (tableColumns.size() + 1);
      return;
    case 'S':
      order.sort = (order.sort + tableColumns.size()) % (tableColumns.size() + 1);
      return;
    case 'n':
      order.sort = tableColumns.size();
      return;
    case 'r':
      order.ascending = !order.ascending;
      return;
    case '/':
      asking_ = Asking::filter;
      typed_ = order.filter;
      return;
    case 'f':
      return fold();
    case 'F':
      return foldAll();
    case 't':
      order.flat = !order.flat;
      return;
    case 'w':
      view.sinceClear = !view.sinceClear;
      return;
    case 'p':
    case ' ':
      view.paused = !view.paused;
      return tab().daemon->pausedIs(view.paused);
    case 'e':
      return paneIs(View::Pane::events);
    case 'l':
      return paneIs(View::Pane::stalls);
    case 'c':
      asking_ = Asking::clear;
      return;
    case '+':
      return intervalIs(interval_ * 2);
    case '-':
      return intervalIs(interval_ / 2);
    default:
      return;
  }
}

void Screen::move(long rows) {
  if (rows_.empty()) return;
  long const last = static_cast<long>(rows_.size()) - 1;
  long const to = std::clamp(static_cast<long>(selectedRow()) + rows, 0L, last);
  tab().view.selected = rowKey(rows_[static_cast<std::size_t>(to)]);
}

void Screen::fold() {
  std::size_t const selected = selectedRow();
  if (selected >= rows_.size() || rows_[selected].content.empty()) return;
  auto& folded = tab().view.order.folded;
  std::string const& group = rows_[selected].content;
  if (folded.erase(group) == 0) folded.insert(group);
}

void Screen::foldAll() {
  auto& folded = tab().view.order.folded;
  if (!folded.empty()) return folded.clear();
  for (auto const& row : rows_) {
    if (!row.content.empty() && !row.isRoot) folded.insert(row.content);
  }
}

void Screen::tabIs(std::size_t index) {
  if (index < tabs_.size()) current_ = index;
}

void Screen::intervalIs(Clock::duration interval) {
  interval_ = std::clamp<Clock::duration>(interval, shortestInterval, longestInterval);
  for (auto& each : tabs_)
    each.daemon->intervalIs(interval_);
}

void Screen::paneIs(View::Pane pane) {
  View& view = tab().view;
  view.pane = view.pane == pane ? View::Pane::none : pane;
  tab().daemon->detailsAre(view.pane != View::Pane::none);
}

}  // namespace Tool
