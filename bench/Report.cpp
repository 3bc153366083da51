#include "Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace Bench {

namespace {

std::vector<std::string> peersOf(Catalogue const& catalogue, std::string const& unit) {
  std::vector<std::string> peers;
  for (Measurement const& each : catalogue.measurements()) {
    if (each.unit != unit || each.isOurs()) continue;
    if (std::find(peers.begin(), peers.end(), each.who) == peers.end()) peers.push_back(each.who);
  }
  return peers;
}

void printHeading(std::string const& unit, std::vector<std::string> const& peers,
                  std::ostream& out) {
  out << fmt::format("\n{:<36}{:<18}{:>10}", unit, "who", "CPU ns");
  for (std::string const& peer : peers)
    out << fmt::format("{:>20}", "x " + peer);
  out << '\n';
}

void printRow(Catalogue const& catalogue, Measurement const& row,
              std::vector<std::string> const& peers, std::ostream& out) {
  out << fmt::format("  {:<34}{:<18}{:>10.1f}", row.form, row.who, row.median());
  if (row.isOurs()) {
    for (std::string const& peer : peers) {
      Measurement const* const other = catalogue.find(row.unit, row.baseForm(), peer);
      out << (other != nullptr ? fmt::format("{:>20.2f}", row.median() / other->median())
                               : fmt::format("{:>20}", "-"));
    }
  }
  out << '\n';
}

}  // namespace

void QuietReporter::ReportRuns(std::vector<Run> const& runs) {
  for (Run const& run : runs)
    failed_ = failed_ || run.error_occurred;
}

void printTable(Catalogue const& catalogue, std::ostream& out) {
  std::string unit;
  std::vector<std::string> peers;
  for (Measurement const& row : catalogue.measurements()) {
    if (row.samples.empty()) continue;
    if (row.unit != unit) {
      unit = row.unit;
      peers = peersOf(catalogue, unit);
      printHeading(unit, peers, out);
    }
    printRow(catalogue, row, peers, out);
  }
}

void printAims(Catalogue const& catalogue, std::ostream& out) {
  out << "\nAims\n";
  for (Aim const& aim : catalogue.aims()) {
    Measurement const* const ours = catalogue.find(aim.unit, aim.form, aim.who);
    Measurement const* const peer = catalogue.find(aim.unit, aim.form, aim.peer);
    if (ours == nullptr || peer == nullptr) continue;
    double const ratio = ours->median() / peer->median();
    out << fmt::format("  {:<8} {}, {}: {} {:.2f} times {}, to be at most {:.2f}\n",
                       ratio <= aim.limit ? "met" : "not met", aim.unit, aim.form, aim.who, ratio,
                       aim.peer, aim.limit);
  }
}

void writeResults(Catalogue const& catalogue, std::string const& path) {
  std::filesystem::path const file(path);
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file);
  char const* separator = "[\n";
  for (Measurement const& each : catalogue.measurements()) {
    if (each.samples.empty()) continue;
    out << separator
        << fmt::format(R"(  {{"unit": "{}", "form": "{}", "who": "{}", "ns": {:.2f}}})", each.unit,
                       each.form, each.who, each.median());
    separator = ",\n";
  }
  out << "\n]\n";
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace Bench
