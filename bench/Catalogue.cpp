#include "Catalogue.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Bench {

namespace {

std::vector<double> onFreshThread(Backend backend, FiguresBody const& body, std::uint64_t count) {
  std::vector<double> figures;
  BreloTest::onBackend(backend, [&] { figures = body(count); });
  return figures;
}

}  // namespace

double Measurement::value() const {
  std::vector<double> sorted = samples;
  std::sort(sorted.begin(), sorted.end());
  if (figure.ofFaults || sorted.size() == 1) return sorted.back();
  return sorted[1];
}

void Catalogue::measure(std::string unit, std::string form, std::string who, std::uint64_t count,
                        Body body, Backend backend, unsigned pieces) {
  measureFigures(
      {{std::move(unit), std::move(form), "CPU ns"}}, who, count,
      [body = std::move(body)](std::uint64_t operations) -> std::vector<double> {
        return {body(operations) * 1e9 / static_cast<double>(operations)};
      },
      backend, pieces);
}

void Catalogue::measureFigures(std::vector<Figure> const& figures, std::string const& who,
                               std::uint64_t count, FiguresBody body, Backend backend,
                               unsigned pieces) {
  std::string const name = figures.front().unit + "/" + figures.front().form + "/" + who;
  std::size_t const first = measurements_.size();
  for (Figure const& figure : figures)
    measurements_.push_back({figure, who, {}});
  benchmark::RegisterBenchmark(
      name.c_str(),
      [this, first, body = std::move(body), backend](benchmark::State& state) {
        auto const operations = static_cast<std::uint64_t>(state.max_iterations);
        while (state.KeepRunningBatch(state.max_iterations)) {
          std::size_t next = first;
          for (double const figure : onFreshThread(backend, body, operations))
            measurements_[next++].samples.push_back(figure);
        }
      })
      ->Iterations(static_cast<benchmark::IterationCount>(
          small_ ? std::max<std::uint64_t>(count / 100, 1) : count / pieces))
      ->Repetitions(static_cast<int>(small_ ? repetitions_ : repetitions_ * pieces));
}

void Catalogue::measureBackends(std::string const& unit, std::string const& form,
                                std::uint64_t count, Body const& body) {
  for (Backend const backend : BreloTest::backends)
    measure(unit, form, whoIs(backend), count, body, backend);
}

void Catalogue::measureFiguresOnBackends(std::vector<Figure> const& figures, std::uint64_t count,
                                         FiguresBody const& body) {
  for (Backend const backend : BreloTest::backends)
    measureFigures(figures, whoIs(backend), count, body, backend);
}

void Catalogue::aimOnBackends(std::string const& unit, std::string const& form, double limit,
                              std::string const& peer) {
  for (Backend const backend : BreloTest::backends)
    aim({unit, form, whoIs(backend), limit, peer});
}

bool Catalogue::hasUnit(std::string const& unit) const {
  return std::any_of(measurements_.begin(), measurements_.end(),
                     [&](Measurement const& each) { return each.figure.unit == unit; });
}

Aim const* Catalogue::findAim(Measurement const& ours, std::string const& peer) const {
  auto const found = std::find_if(aims_.begin(), aims_.end(), [&](Aim const& aim) {
    return aim.unit == ours.figure.unit && aim.form == ours.figure.form && aim.who == ours.who &&
           aim.peer == peer;
  });
  return found != aims_.end() ? &*found : nullptr;
}

}  // namespace Bench
