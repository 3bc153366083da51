#include "top/Table.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

namespace Tool {

namespace {

double share(NameFigures const& name, Figures const& of) {
  return of.perSecond(name.run.seconds);
}
double runs(NameFigures const& name, Figures const& of) {
  return of.perSecond(name.run.count);
}
double work(NameFigures const& name, Figures const& of) {
  return of.perSecond(name.work);
}

constexpr std::size_t deepest = 32;

bool contains(std::string const& text, std::string const& part) {
  auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

class TableMaker {
 public:
  TableMaker(Figures const& figures, TableOrder const& order) : figures_(figures), order_(order) {}

  std::vector<Row> make() {
    for (auto const& name : figures_.names)
      groups_[name.group].push_back(&name);
    if (order_.flat) {
      addFlat();
      return std::move(rows_);
    }
    std::set<std::string> inner;
    for (auto const& name : figures_.names) {
      if (name.isGroup) inner.insert(name.content());
    }
    for (auto const& [group, names] : groups_) {
      if (inner.count(group) == 0) addRoot(group);
    }
    for (auto const& [group, names] : groups_) {
      if (made_.count(group) == 0) addRoot(group);
    }
    return std::move(rows_);
  }

 private:
  void addFlat() {
    std::vector<NameFigures const*> all;
    for (auto const& name : figures_.names)
      all.push_back(&name);
    sort(all);
    for (auto const* name : all) {
      if (matches(*name)) rows_.push_back(makeRow(*name, name->group + "/" + name->name, 0));
    }
  }

  void addRoot(std::string const& group) {
    NameFigures sum;
    sum.group = group;
    for (auto const* name : groups_[group]) {
      sum.tasks += name->tasks;
      sum.runnable += name->runnable;
      sum.pending += name->pending;
      sum.work += name->work;
      sum.violations += name->violations;
      sum.run.count += name->run.count;
      sum.run.seconds += name->run.seconds;
      sum.wait.count += name->wait.count;
      sum.wait.seconds += name->wait.seconds;
      sum.run.max = std::max(sum.run.max, name->run.max);
      sum.wait.max = std::max(sum.wait.max, name->wait.max);
    }
    Row row = makeRow(sum, group, 0);
    row.content = group;
    row.isRoot = true;
    addGroup(row);
  }

  /// Adds the group's row and what is inside; returns whether any of it has passed the filter.
  bool addGroup(Row row) {
    made_.insert(row.content);
    row.folded = order_.filter.empty() && order_.folded.count(row.content) > 0;
    auto at = rows_.size();
    bool found = matches(row.figures);
    rows_.push_back(row);
    auto names = groups_[row.content];
    sort(names);
    for (auto const* name : names)
      found = addName(*name, row.depth + 1) || found;
    if (row.folded) rows_.resize(at + 1);
    if (!found) rows_.resize(at);
    return found;
  }

  bool addName(NameFigures const& name, std::size_t depth) {
    std::string content = name.content();
    bool known = !content.empty() && groups_.count(content) > 0;
    Row row = makeRow(name, content.empty() ? name.name : content, depth);
    if (known && made_.count(content) == 0 && depth < deepest) {
      row.content = content;
      return addGroup(row);
    }
    if (!matches(name)) return false;
    rows_.push_back(row);
    return true;
  }

  Row makeRow(NameFigures const& name, std::string label, std::size_t depth) const {
    auto const& queued = figures_.longestQueued;
    Row row;
    row.figures = name;
    row.figures.run.histogram = {};
    row.figures.wait.histogram = {};
    row.label = std::move(label);
    row.depth = depth;
    row.longestQueued = queued && queued->group == name.group && queued->name == name.name &&
                        queued->priority == name.priority;
    return row;
  }

  bool matches(NameFigures const& name) const {
    return contains(name.name, order_.filter) || contains(name.group, order_.filter);
  }

  void sort(std::vector<NameFigures const*>& names) const {
    auto byName = [](NameFigures const* a, NameFigures const* b) {
      return std::tie(a->name, a->group, a->priority) < std::tie(b->name, b->group, b->priority);
    };
    std::sort(names.begin(), names.end(), byName);
    if (order_.sort >= tableColumns.size()) {
      if (order_.ascending) std::reverse(names.begin(), names.end());
      return;
    }
    auto value = tableColumns[order_.sort].value;
    std::stable_sort(names.begin(), names.end(), [&](NameFigures const* a, NameFigures const* b) {
      if (order_.ascending) std::swap(a, b);
      return value(*a, figures_) > value(*b, figures_);
    });
  }

  Figures const& figures_;
  TableOrder const& order_;
  std::map<std::string, std::vector<NameFigures const*>> groups_;
  std::set<std::string> made_;
  std::vector<Row> rows_;
};

}  // namespace

// clang-format off
std::array<Column, 14> const tableColumns{{
  {"%LOOP", "loop", "share of the loop's time that its runs took", Column::Form::percent, false, share},
  {"RUNS/S", "runs", "runs a second", Column::Form::count, false, runs},
  {"RUN", "run", "mean length of a run", Column::Form::duration, false, [](auto& n, auto&) { return n.run.mean(); }},
  {"RUN99", "run99", "99 of 100 runs were no longer", Column::Form::duration, false, [](auto& n, auto&) { return n.run.p99; }},
  {"RUNMAX", "runmax", "the longest run", Column::Form::duration, true, [](auto& n, auto&) { return n.run.max; }},
  {"WAIT", "wait", "mean wait from the queue to the run", Column::Form::duration, false, [](auto& n, auto&) { return n.wait.mean(); }},
  {"WAIT99", "wait99", "99 of 100 waits were no longer", Column::Form::duration, false, [](auto& n, auto&) { return n.wait.p99; }},
  {"WAITMX", "waitmax", "the longest wait", Column::Form::duration, true, [](auto& n, auto&) { return n.wait.max; }},
  {"WORK/S", "work", "work units a second", Column::Form::count, false, work},
  {"PEND", "pending", "work that the tasks last said is pending", Column::Form::count, false, [](auto& n, auto&) { return n.pending; }},
  {"VIOL", "violations", "runs of two quanta or more", Column::Form::count, false, [](auto& n, auto&) { return n.violations; }},
  {"TASKS", "tasks", "live tasks of the name", Column::Form::count, true, [](auto& n, auto&) { return n.tasks; }},
  {"QUEUED", "queued", "of these, runnable now", Column::Form::count, true, [](auto& n, auto&) { return n.runnable; }},
  {"RUN50", "run50", "half of the runs were no longer", Column::Form::duration, true, [](auto& n, auto&) { return n.run.p50; }},
}};
// clang-format on

std::size_t columnOf(std::string const& key) {
  auto found = std::find_if(tableColumns.begin(), tableColumns.end(),
                            [&](Column const& column) { return column.key == key; });
  return static_cast<std::size_t>(found - tableColumns.begin());
}

std::vector<Row> makeTable(Figures const& figures, TableOrder const& order) {
  return TableMaker(figures, order).make();
}

}  // namespace Tool
