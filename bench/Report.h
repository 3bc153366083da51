#pragma once

#include <benchmark/benchmark.h>

#include <ostream>
#include <string>
#include <vector>

#include "Catalogue.h"

namespace Bench {

/// Takes the place of Google Benchmark's own reports: remembers only whether something failed,
/// since the samples are in the catalogue.
class QuietReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(Context const&) override { return true; }
  void ReportRuns(std::vector<Run> const& runs) override;
  bool failed() const { return failed_; }

 private:
  bool failed_ = false;
};

/// One table: the medians, and the ratio of each of the project's rows to each peer's.
void printTable(Catalogue const& catalogue, std::ostream& out);
/// Each aim with the ratio reached, and whether it is met.
void printAims(Catalogue const& catalogue, std::ostream& out);
/// The medians as a list of objects "unit", "form", "who", "ns". Throws `std::runtime_error` if
/// the file cannot be written.
void writeResults(Catalogue const& catalogue, std::string const& path);

}  // namespace Bench
