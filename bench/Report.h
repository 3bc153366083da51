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

/// A row of the table: a figure of the project beside one peer, or alone. The pointers lead into
/// the catalogue.
struct Comparison {
  Measurement const* ours;
  Measurement const* peer;  // null for none
  Aim const* aim;           // null for none

  double ratio() const { return ours->value() / peer->value(); }
  bool met() const { return (peer != nullptr ? ratio() : ours->value()) <= aim->limit; }
};

/// Of all that was measured in this run.
std::vector<Comparison> compare(Catalogue const& catalogue);

/// One table, in Markdown.
void printTable(std::vector<Comparison> const& comparisons, std::ostream& out);
/// A JSON document with all samples under "measurements" and the table under "comparisons". Throws
/// `std::runtime_error` if the file cannot be written.
void writeResults(Catalogue const& catalogue, std::vector<Comparison> const& comparisons,
                  std::string const& path);

}  // namespace Bench
