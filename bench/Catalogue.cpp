#include "Catalogue.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <future>
#include <utility>

#include "Brelo/Thread.h"

namespace Bench {

namespace {

double onFreshThread(Backend backend, Body const& body, std::uint64_t count) {
  return std::async(std::launch::async,
                    [&] {
                      if (backend == Backend::libevent) Brelo::useThreadLocalSingletons();
                      return body(count);
                    })
      .get();
}

}  // namespace

double Measurement::median() const {
  std::vector<double> sorted = samples;
  std::sort(sorted.begin(), sorted.end());
  std::size_t const half = sorted.size() / 2;
  return sorted.size() % 2 == 1 ? sorted[half] : (sorted[half - 1] + sorted[half]) / 2;
}

void Catalogue::measure(std::string unit, std::string form, std::string who, std::uint64_t count,
                        Body body, Backend backend) {
  std::string const name = unit + "/" + form + "/" + who;
  Measurement& measurement =
      measurements_.emplace_back(Measurement{std::move(unit), std::move(form), std::move(who), {}});
  benchmark::RegisterBenchmark(
      name.c_str(),
      [&measurement, body = std::move(body), backend](benchmark::State& state) {
        auto const operations = static_cast<std::uint64_t>(state.max_iterations);
        while (state.KeepRunningBatch(state.max_iterations)) {
          double const seconds = onFreshThread(backend, body, operations);
          state.SetIterationTime(seconds);
          measurement.samples.push_back(seconds * 1e9 / static_cast<double>(operations));
        }
      })
      ->Iterations(static_cast<benchmark::IterationCount>(
          small_ ? std::max<std::uint64_t>(count / 100, 1) : count))
      ->Repetitions(static_cast<int>(repetitions_))
      ->UseManualTime();
}

void Catalogue::measureBackends(std::string const& unit, std::string const& form,
                                std::uint64_t count, Body const& body) {
  measure(unit, form, "brelo-libevent", count, body, Backend::libevent);
  measure(unit, form, "brelo-host", count, body, Backend::host);
}

Measurement const* Catalogue::find(std::string const& unit, std::string const& form,
                                   std::string const& who) const {
  for (Measurement const& each : measurements_) {
    if (each.unit == unit && each.form == form && each.who == who && !each.samples.empty()) {
      return &each;
    }
  }
  return nullptr;
}

}  // namespace Bench
