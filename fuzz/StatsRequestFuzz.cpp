#include <algorithm>

#include "BreloObserve/internal/Request.h"
#include "Check.h"

namespace {

using BreloFuzz::check;
using BreloObserve::Impl::Request;
using BreloObserve::Impl::RequestError;

bool isPrintable(std::string const& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

/// A line of a client, as the statistics server reads it.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::string const line(BreloObserve::Impl::trimmed(text.substr(0, text.find('\n'))));
  if (line.empty()) return 0;
  try {
    Request const request = Request::read(line);
    auto const kind = static_cast<std::size_t>(request.kind);
    check(kind < Request::names.size() && line.find(Request::names[kind]) == 0);
    check(isPrintable(request.settings) && request.settings.size() <= line.size());
    check(request.sort.size() + request.group.size() <= line.size());
    Request const same = Request::read(line + " \t\r");
    check(same.kind == request.kind && same.top == request.top && same.group == request.group &&
          same.settings == request.settings && same.since == request.since);
  } catch (RequestError const& error) {
    std::string const why = error.what();
    check(!why.empty() && why.size() < 200 && isPrintable(why));
  }
  return 0;
}
