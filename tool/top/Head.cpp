#include <algorithm>
#include <array>
#include <cmath>

#include "Text.h"
#include "top/View.h"

namespace Tool {

namespace {

double secondsOf(Watched::Clock::duration length) {
  return std::chrono::duration<double>(length).count();
}

/// How the daemon is doing, for the right end of the first line.
Line::Piece stateOf(Watched const& daemon, View const& view, Watched::Clock::time_point now) {
  if (!daemon.trouble().empty()) return {"NOT REACHED", Style::alarm};
  double const silent = secondsOf(daemon.silence(now));
  if (silent > 1.5) return {"NO ANSWER for " + shortLength(silent * 1e9), Style::alarm};
  if (view.paused) return {"PAUSED", Style::warning};
  return daemon.window() ? Line::Piece{"live", Style::good} : Line::Piece{"connecting", Style::dim};
}

Line nameLine(Watched const& daemon, View const& view, Watched::Clock::time_point now,
              std::size_t width) {
  Line line;
  if (Figures const* window = daemon.window()) {
    DocumentHead const& head = window->head;
    line.add(printable(head.process), Style::bold)
        .add("  pid " + std::to_string(head.pid) + "  up " +
             uptimeText(head.timeUnixSeconds - head.startedUnixSeconds));
    if (width >= 100) line.add("  library " + printable(head.library) + "  " + daemon.path());
  } else {
    line.add(printable(daemon.path()), Style::bold);
  }
  Line::Piece state = stateOf(daemon, view, now);
  std::size_t const used = line.width() + columnsOf(state.text);
  line.add(std::string(used < width ? width - used : 1, ' '));
  line.pieces.push_back(std::move(state));
  return line;
}

Line loopLine(Figures const& figures) {
  LoopFigures const& loop = figures.loop;
  auto const percent = [&](double seconds) {
    return shortPercent(figures.perSecond(seconds)) + "%";
  };
  Line line("loop  ", Style::dim);
  line.add("running " + percent(loop.runningSeconds), Style::bold)
      .add("  polling " + percent(loop.pollingSeconds) + "  waiting " +
           percent(loop.waitingSeconds) + "  cpu " + percent(loop.cpuSeconds) + "  runs/s " +
           shortCount(figures.perSecond(loop.runs)) + "  looks/s " +
           shortCount(figures.perSecond(loop.looks)));
  return line;
}

/// The waits of all names together.
Durations allWaits(Figures const& figures) {
  Durations all;
  for (auto const& name : figures.names) {
    all.count += name.wait.count;
    all.max = std::max(all.max, name.wait.max);
    all.histogram.add(name.wait.histogram);
  }
  all.p50 = all.histogram.percentile(0.5);
  all.p99 = all.histogram.percentile(0.99);
  return all;
}

std::string spread(Durations const& durations) {
  if (durations.count <= 0) return "-";
  return "p50 " + shortLength(durations.p50) + "  p99 " + shortLength(durations.p99) + "  max " +
         shortLength(durations.max);
}

Line timesLine(Figures const& figures) {
  Line line("slip  ", Style::dim);
  line.add(spread(figures.loop.slip)).add("   wait  ", Style::dim);
  return line.add(spread(allWaits(figures)));
}

Line queueLine(Figures const& figures, View const& view) {
  Line line("tasks ", Style::dim);
  line.add(shortCount(figures.loop.tasks) + "  queued " + shortCount(figures.loop.runnable));
  if (auto const& queued = figures.longestQueued) {
    bool const late = queued->seconds * 1e9 > view.quantumNs;
    line.add("  longest ")
        .add("*" + printable(queued->group) + "/" + printable(queued->name) + " " +
                 shortLength(queued->seconds * 1e9),
             late ? Style::alarm : Style::bold);
  }
  if (auto const timer = figures.nextTimerSeconds) {
    line.add("  next timer in " + shortLength(*timer * 1e9));
  }
  if (figures.tasksMissing) line.add("  not all tasks counted", Style::warning);
  return line;
}

Line loadLine(Watched const& daemon, std::size_t width) {
  Line line("load  ", Style::dim);
  return line.add(sparkline(daemon.load(), width > 6 ? width - 6 : 0), Style::good);
}

Line noticeLine(Watched const& daemon, View const& view) {
  if (!daemon.trouble().empty()) return Line(daemon.trouble(), Style::alarm);
  Figures const* figures = view.figures(daemon);
  if (!figures) return Line();
  bool const whole = view.sinceClear || figures->seconds == daemon.window()->seconds;
  Line line((whole ? "since cleared, " : "the latest ") + shortLength(figures->seconds * 1e9) +
                (view.order.filter.empty() ? "" : "; names with \"" + view.order.filter + "\""),
            Style::dim);
  if (!daemon.notice().empty()) line.add("   ").add(daemon.notice(), Style::warning);
  return line;
}

}  // namespace

std::vector<Line> headLines(Watched const& daemon, View const& view, Watched::Clock::time_point now,
                            std::size_t width) {
  std::vector<Line> lines{nameLine(daemon, view, now, width)};
  if (Figures const* figures = view.figures(daemon)) {
    lines.push_back(loopLine(*figures));
    lines.push_back(timesLine(*figures));
    lines.push_back(queueLine(*figures, view));
    lines.push_back(loadLine(daemon, width));
  }
  lines.push_back(noticeLine(daemon, view));
  return lines;
}

}  // namespace Tool
