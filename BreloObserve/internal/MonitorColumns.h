#pragma once

#include <cstdint>
#include <string_view>
#include <variant>

#include "BreloObserve/internal/NameAccount.h"

namespace BreloObserve::Impl {

/// The figures that a document shows of a name.
struct MonitorColumn {
  using Value = std::variant<std::string_view, std::uint64_t, double>;

  std::string_view name;
  Value (*value)(NameAccount const& account, double windowSeconds);
};

struct MonitorColumns {
  MonitorColumn const* begin() const;
  MonitorColumn const* end() const;
  /// Null for none.
  MonitorColumn const* find(std::string_view name) const;
};

}  // namespace BreloObserve::Impl
