// The project beside libevent, libuv and Boost.Asio, in one run of one program.
//
//     brelo_bench [--small] [--results=PATH] [Google Benchmark's options] [UNIT...]
//
// Without a unit it runs all of them, and `--benchmark_filter` can choose single measurements.
// `--small` shows in a few seconds that everything runs; its figures mean nothing.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "Report.h"
#include "ServerClient.h"
#include "Units.h"

namespace {

struct Options {
  bool small = false;
  std::string results = "build/bench/results.json";
  std::vector<std::string> units;  // none for all
  std::vector<char*> harness;      // what is left for Google Benchmark
};

Options readOptions(int argc, char** argv) {
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  static std::string const resultsOption = "--results=";
  Options options;
  options.harness = {argv[0], interleave};
  for (int i = 1; i < argc; ++i) {
    std::string const argument = argv[i];
    if (argument == "--small") {
      options.small = true;
    } else if (argument.rfind(resultsOption, 0) == 0) {
      options.results = argument.substr(resultsOption.size());
    } else if (argument.rfind('-', 0) != 0) {
      options.units.push_back(argument);
    } else {
      options.harness.push_back(argv[i]);
    }
  }
  return options;
}

/// Throws `std::runtime_error` if there is no unit of a name.
void chooseUnits(std::vector<std::string> const& units, Bench::Catalogue const& catalogue) {
  std::string names;
  for (std::string const& unit : units) {
    if (!catalogue.hasUnit(unit)) throw std::runtime_error("there is no unit \"" + unit + '"');
    names += (names.empty() ? "" : "|") + unit;
  }
  if (!units.empty()) benchmark::SetBenchmarkFilter("^(" + names + ")/");
}

int runUnits(int argc, char** argv) {
  Options options = readOptions(argc, argv);
  int harnessCount = static_cast<int>(options.harness.size());
  benchmark::Initialize(&harnessCount, options.harness.data());
  if (benchmark::ReportUnrecognizedArguments(harnessCount, options.harness.data())) {
    return EXIT_FAILURE;
  }

  unsigned const repetitions = options.small ? 1 : 9;
  Bench::Catalogue catalogue(repetitions, options.small);
  Bench::addDispatch(catalogue);
  Bench::addTimerRestart(catalogue);
  Bench::addTimerExpiry(catalogue);
  Bench::addLateness(catalogue);
  Bench::addDescriptorWake(catalogue);
  Bench::addServer(catalogue);
  Bench::addStream(catalogue);
  Bench::addMailboxPost(catalogue);
  Bench::addGroupRun(catalogue);
  Bench::addShouldYield(catalogue);
  Bench::addReports(catalogue);
  Bench::addMonitor(catalogue);
  Bench::addThrow(catalogue);
  Bench::addHash(catalogue);

  chooseUnits(options.units, catalogue);
  Bench::QuietReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto const comparisons = Bench::compare(catalogue);
  Bench::printTable(comparisons, std::cout);
  Bench::writeResults(catalogue, comparisons, options.results);
  return reporter.failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && argv[1] == std::string(Bench::serverClientOption)) {
    return Bench::runServerClient({argv + 2, argv + argc});
  }
  try {
    return runUnits(argc, argv);
  } catch (std::exception const& error) {
    std::cerr << "brelo_bench: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
