#include "Report.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace Bench {

namespace {

/// Three digits that count, and no fewer than all before the point.
std::string number(double value) {
  if (value >= 100 || value == 0) return fmt::format("{:.0f}", value);
  return fmt::format("{:.{}f}", value, value >= 10 ? 1 : 2);
}

void printRow(std::ostream& out, std::string const& what, std::string const& ours,
              std::string const& peer, std::string const& ratio, std::string const& aim,
              std::string const& result) {
  out << fmt::format("| {:<60} | {:<26} | {:<26} | {:>7} | {:>9} | {:<7} |\n", what, ours, peer,
                     ratio, aim, result);
}

std::string who(Measurement const& measurement) {
  return fmt::format("{} {}", measurement.who, number(measurement.value()));
}

nlohmann::json toJson(Measurement const& measurement) {
  return {{"unit", measurement.figure.unit},     {"form", measurement.figure.form},
          {"counts", measurement.figure.counts}, {"who", measurement.who},
          {"value", measurement.value()},        {"samples", measurement.samples}};
}

nlohmann::json toJson(Comparison const& row) {
  nlohmann::json object = {{"unit", row.ours->figure.unit},
                           {"form", row.ours->figure.form},
                           {"counts", row.ours->figure.counts},
                           {"who", row.ours->who},
                           {"value", row.ours->value()}};
  if (row.peer != nullptr) {
    object["peer"] = row.peer->who;
    object["peerValue"] = row.peer->value();
    object["ratio"] = row.ratio();
  }
  if (row.aim != nullptr) {
    object["aim"] = row.aim->limit;
    object["met"] = row.met();
  }
  return object;
}

}  // namespace

void QuietReporter::ReportRuns(std::vector<Run> const& runs) {
  for (Run const& run : runs)
    failed_ = failed_ || run.error_occurred;
}

std::vector<Comparison> compare(Catalogue const& catalogue) {
  std::vector<Comparison> comparisons;
  for (Measurement const& ours : catalogue.measurements()) {
    if (!ours.isOurs() || ours.samples.empty()) continue;
    Aim const* const aim = catalogue.findAim(ours, "");
    std::size_t const before = comparisons.size();
    for (Measurement const& peer : catalogue.measurements()) {
      if (peer.isOurs() || peer.samples.empty() || peer.figure.unit != ours.figure.unit ||
          peer.figure.form != ours.figure.baseForm()) {
        continue;
      }
      comparisons.push_back({&ours, &peer, catalogue.findAim(ours, peer.who)});
    }
    if (aim != nullptr || comparisons.size() == before)
      comparisons.push_back({&ours, nullptr, aim});
  }
  return comparisons;
}

void printTable(std::vector<Comparison> const& comparisons, std::ostream& out) {
  printRow(out, "unit: form, in", "project", "peer", "ratio", "aim", "result");
  printRow(out, "---", "---", "---", "---:", "---:", "---");
  for (Comparison const& row : comparisons) {
    Figure const& figure = row.ours->figure;
    printRow(out, fmt::format("{}: {}, {}", figure.unit, figure.form, figure.counts),
             who(*row.ours), row.peer != nullptr ? who(*row.peer) : "",
             row.peer != nullptr && row.peer->value() > 0 ? fmt::format("{:.2f}", row.ratio()) : "",
             row.aim != nullptr ? "<= " + number(row.aim->limit) : "",
             row.aim != nullptr ? (row.met() ? "met" : "not met") : "");
  }
}

void writeResults(Catalogue const& catalogue, std::vector<Comparison> const& comparisons,
                  std::string const& path) {
  nlohmann::json document = {{"measurements", nlohmann::json::array()},
                             {"comparisons", nlohmann::json::array()}};
  for (Measurement const& each : catalogue.measurements()) {
    if (!each.samples.empty()) document["measurements"].push_back(toJson(each));
  }
  for (Comparison const& each : comparisons)
    document["comparisons"].push_back(toJson(each));

  std::filesystem::path const file(path);
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file);
  out << document.dump(2) << '\n';
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace Bench
