#include "top/View.h"

#include <algorithm>

#include "Text.h"

namespace Tool {

namespace {

constexpr std::size_t wideFrom = 120;  // columns that show all figures
constexpr std::size_t cell = 6;

bool isShown(Column const& column, std::size_t width) {
  return width >= wideFrom || !column.wideOnly;
}

std::size_t labelWidth(std::size_t width) {
  std::size_t cells = 0;
  for (auto const& column : tableColumns)
    cells += isShown(column, width) ? cell + 1 : 0;
  return std::max<std::size_t>(width > cells ? width - cells : 0, 12);
}

std::string cellText(Column const& column, double value, Row const& row) {
  switch (column.form) {
    case Column::Form::percent:
      return shortPercent(value);
    case Column::Form::count:
      return shortCount(value);
    case Column::Form::duration:
      break;
  }
  // A root has no percentiles of its own, and what has not run has no lengths.
  return value > 0 || (row.figures.run.count > 0 && !row.isRoot) ? shortLength(value) : "-";
}

Style rowStyle(Row const& row, View const& view) {
  if (row.figures.violations > 0 || row.figures.run.max > view.quantumNs) return Style::alarm;
  if (row.longestQueued) return Style::warning;
  return row.content.empty() ? Style::plain : Style::bold;
}

Line eventLine(Event const& event) {
  Line line(timeOfDay(event.unixSeconds), Style::dim);
  return line.add("  " + fitted(event.type, 22) + " " + event.subject);
}

Line stallLine(Stall const& stall) {
  bool const blocked = stall.lastCpuSeconds < stall.lastSeconds / 2;
  Line line(timeOfDay(stall.lastUnix), Style::dim);
  line.add("  " + stall.group + "/" + stall.name + " " + shortLength(stall.lastSeconds * 1e9) +
               (blocked ? " blocked" : " busy") + ", " + shortCount(stall.count) +
               " times, longest " + shortLength(stall.longestSeconds * 1e9),
           stall.lasting ? Style::alarm : Style::plain);
  if (stall.lasting) line.add(" LASTING", Style::alarm);
  return line.add(" in " + stall.place);
}

}  // namespace

std::string rowKey(Row const& row) {
  return row.figures.group + '\0' + row.figures.name + '\0' + row.figures.priority;
}

Line tableTitle(View const& view, std::size_t width) {
  auto const mark = [&](bool sorted) { return sorted ? Style::bold : Style::dim; };
  Line line;
  line.add(fitted("GROUP OR NAME", labelWidth(width)),
           mark(view.order.sort >= tableColumns.size()));
  for (std::size_t i = 0; i < tableColumns.size(); ++i) {
    if (!isShown(tableColumns[i], width)) continue;
    line.add(" ").add(fittedRight(tableColumns[i].title, cell), mark(view.order.sort == i));
  }
  return line;
}

Line tableLine(Row const& row, Figures const& figures, View const& view, std::size_t width) {
  bool const utf8 = localeIsUtf8();
  std::size_t const indent = std::min(row.depth * 2, labelWidth(width) / 2);
  std::string label(indent, ' ');
  if (!row.content.empty()) {
    label += row.folded ? (utf8 ? "▸ " : "+ ") : (utf8 ? "▾ " : "- ");
  } else if (row.longestQueued) {
    label += "* ";
  } else if (row.depth > 0) {
    label += "  ";
  }
  label += printable(row.label);
  if (!row.figures.priority.empty() && row.figures.priority != "normal") {
    label += " (" + printable(row.figures.priority) + ")";
  }
  Style const style = rowStyle(row, view);
  Line line(fitted(label, labelWidth(width)), style);
  for (auto const& column : tableColumns) {
    if (!isShown(column, width)) continue;
    double const value = column.value(row.figures, figures);
    line.add(" " + fittedRight(cellText(column, value, row), cell), style);
  }
  return line;
}

std::vector<Line> paneLines(Watched const& daemon, View::Pane pane, std::size_t count) {
  std::vector<Line> lines;
  bool const events = pane == View::Pane::events;
  std::string const title = events ? "latest events" : "stalls";
  std::string const trouble = events ? daemon.eventsTrouble() : daemon.stallsTrouble();
  lines.emplace_back(title + (trouble.empty() ? "" : ": " + trouble), Style::reverse);
  if (events) {
    auto const& history = daemon.history();
    auto from = history.size() - std::min(history.size(), count);
    for (; from < history.size(); ++from)
      lines.push_back(eventLine(history[from]));
  } else {
    for (auto const& stall : daemon.stalls()) {
      if (lines.size() <= count) lines.push_back(stallLine(stall));
    }
  }
  return lines;
}

std::vector<Line> helpLines() {
  std::vector<Line> lines;
  for (char const* text : {
           "up down pgup pgdn home end   move          enter f   fold or open the group; F all",
           "s S   sort by the next, previous column    r   reverse    n   by name",
           "/   filter by a part of the name           t   tree or flat list",
           "w   the latest interval, or since cleared  + -   longer, shorter interval",
           "e   latest events    l   stalls            p space   pause",
           "tab 1..9   next daemon, a certain one      c   clear the daemon's figures",
           "q   quit                                   h ?   this page",
       }) {
    lines.emplace_back(text);
  }
  lines.emplace_back("");
  for (auto const& column : tableColumns) {
    lines.emplace_back(fitted(column.title, 8) + column.meaning);
  }
  lines.emplace_back("");
  lines.emplace_back(
      "In red: a run was longer than a quantum. A star: queued for the longest time.",
      Style::alarm);
  return lines;
}

}  // namespace Tool
