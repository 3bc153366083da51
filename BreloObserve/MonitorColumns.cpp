#include "BreloObserve/internal/MonitorColumns.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace BreloObserve::Impl {

namespace {

using Value = MonitorColumn::Value;

Value text(Brelo::ConstStringRef const& name) {
  return std::string_view(name.string());
}

Value perSecond(double count, double seconds) {
  return seconds > 0 ? count / seconds : 0.0;
}

template <Histogram NameAccount::*histogram>
Value mean(NameAccount const& account, double) {
  return (account.*histogram).mean();
}

/// `share` in thousandths.
template <Histogram NameAccount::*histogram, unsigned share>
Value percentile(NameAccount const& account, double) {
  return static_cast<std::uint64_t>((account.*histogram).percentile(share / 1000.0).count());
}

constexpr auto run = &NameAccount::run;
constexpr auto wait = &NameAccount::wait;

constexpr MonitorColumn columns[] = {
    {"group", [](NameAccount const& each, double) { return text(each.group); }},
    {"name", [](NameAccount const& each, double) { return text(each.name); }},
    {"priority",
     [](NameAccount const& each, double) -> Value {
       return std::string_view(each.isSum ? "" : each.priority.toStrep());
     }},
    {"tasks", [](NameAccount const& each, double) -> Value { return each.tasks; }},
    {"runnable", [](NameAccount const& each, double) -> Value { return each.runnable; }},
    {"pending", [](NameAccount const& each, double) -> Value { return each.pending; }},
    {"runs", [](NameAccount const& each, double) -> Value { return each.run.count(); }},
    {"runs_per_s",
     [](NameAccount const& each, double seconds) {
       return perSecond(static_cast<double>(each.run.count()), seconds);
     }},
    {"run_s", [](NameAccount const& each, double) -> Value { return each.used() * 1e-9; }},
    {"run_ratio", [](NameAccount const& each,
                     double seconds) { return perSecond(each.used() * 1e-9, seconds); }},
    {"run_mean_ns", mean<run>},
    {"run_p50_ns", percentile<run, 500>},
    {"run_p90_ns", percentile<run, 900>},
    {"run_p99_ns", percentile<run, 990>},
    {"run_p999_ns", percentile<run, 999>},
    {"run_max_ns", percentile<run, 1000>},
    {"wait_mean_ns", mean<wait>},
    {"wait_p50_ns", percentile<wait, 500>},
    {"wait_p90_ns", percentile<wait, 900>},
    {"wait_p99_ns", percentile<wait, 990>},
    {"wait_p999_ns", percentile<wait, 999>},
    {"wait_max_ns", percentile<wait, 1000>},
    {"work", [](NameAccount const& each, double) -> Value { return each.work; }},
    {"work_per_s",
     [](NameAccount const& each, double seconds) {
       return perSecond(static_cast<double>(each.work), seconds);
     }},
    {"violations_200", [](NameAccount const& each, double) -> Value { return each.violations200; }},
    {"violations_500", [](NameAccount const& each, double) -> Value { return each.violations500; }},
};

}  // namespace

MonitorColumn const* MonitorColumns::begin() const {
  return std::begin(columns);
}

MonitorColumn const* MonitorColumns::end() const {
  return std::end(columns);
}

MonitorColumn const* MonitorColumns::find(std::string_view name) const {
  auto const* const found = std::find_if(
      begin(), end(), [&](MonitorColumn const& column) { return column.name == name; });
  return found != end() ? found : nullptr;
}

}  // namespace BreloObserve::Impl
