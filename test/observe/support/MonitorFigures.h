#pragma once

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloObserve/Monitor.h"

namespace BreloTest {

inline auto newRoot() {
  return Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
}

/// The figures of a name, all zero if there is none.
inline BreloObserve::NameFigures figuresOf(BreloObserve::Monitor const& monitor,
                                           std::string const& group, std::string const& name) {
  for (BreloObserve::NameFigures& each : monitor.names()) {
    if (each.group == group && each.name == name) return std::move(each);
  }
  return {};
}

using Names = std::vector<std::string>;

/// The names that have figures, each behind its group, in the alphabet.
inline Names namesOf(BreloObserve::Monitor const& monitor) {
  Names names;
  for (BreloObserve::NameFigures const& each : monitor.names())
    names.push_back(each.group + "/" + each.name);
  std::sort(names.begin(), names.end());
  return names;
}

inline rapidjson::Document parsed(std::string const& text) {
  rapidjson::Document document;
  document.Parse(text.c_str());
  EXPECT_FALSE(document.HasParseError()) << text;
  EXPECT_EQ(text.back(), '\n');
  return document;
}

/// Keeps the processor busy.
inline void spin(std::chrono::nanoseconds length) {
  auto const until = std::chrono::steady_clock::now() + length;
  while (std::chrono::steady_clock::now() < until) {
  }
}

}  // namespace BreloTest
