#pragma once

#include <prometheus/metric_family.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "metrics/Totals.h"

namespace Tool {

/// Metrics in the making: families by name, with a value or more for each daemon.
class Exposition {
 public:
  using Labels = std::vector<prometheus::ClientMetric::Label>;

  void addUp(std::string const& daemon, bool up);
  void addTotals(std::string const& daemon, Totals const& totals);
  void addStalls(std::string const& daemon, double caught, double suppressed);

  std::vector<prometheus::MetricFamily> take();

 private:
  prometheus::ClientMetric& add(char const* name, char const* help, prometheus::MetricType type,
                                Labels const& labels);
  void counter(char const* name, char const* help, Labels const& labels, double value);
  void gauge(char const* name, char const* help, Labels const& labels, double value);
  void histogram(char const* name, char const* help, Labels const& labels,
                 CoarseHistogram const& value);
  void addLoop(Labels const& daemon, Totals const& totals);
  void addName(Labels const& daemon, Totals::Key const& key, NameTotals const& totals);

  std::map<std::string, prometheus::MetricFamily> families_;
};

}  // namespace Tool
