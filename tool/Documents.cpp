#include "Documents.h"

#include <cmath>

#include "Failure.h"
#include "Text.h"

namespace Tool {

namespace {

constexpr std::int64_t knownVersion = 1;

}  // namespace

Json readDocument(std::string_view text, std::string_view kind) {
  Json document = Json::parse(text, nullptr, false);
  std::string const name = "document \"" + std::string(kind) + "\"";
  if (document.is_discarded() || textOf(document, "document") != kind) {
    throw Failure("the answer is no " + name + "; it begins with \"" +
                  printable(text.substr(0, 40)) + "\"");
  }
  std::int64_t const version = integerOf(document, "version");
  if (version != knownVersion) {
    throw Failure("the " + name + " is of version " + std::to_string(version) +
                  "; take the brelo of the daemon's library");
  }
  return document;
}

DocumentHead headOf(Json const& document) {
  Json const& process = memberOf(document, "process");
  DocumentHead head;
  head.process = textOf(process, "name", "?");
  head.pid = integerOf(process, "pid");
  head.startedUnixSeconds = numberOf(process, "started_unix_s");
  head.library = textOf(process, "library", "?");
  head.timeUnixSeconds = numberOf(document, "time_unix_s");
  head.timeMonotonicNs = integerOf(document, "time_monotonic_ns");
  return head;
}

double numberOf(Json const& object, std::string_view name, double otherwise) {
  Json const& member = memberOf(object, name);
  if (!member.is_number()) return otherwise;
  double const number = member.get<double>();
  return std::isfinite(number) ? number : otherwise;
}

std::int64_t integerOf(Json const& object, std::string_view name, std::int64_t otherwise) {
  return asInteger(memberOf(object, name), otherwise);
}

bool flagOf(Json const& object, std::string_view name, bool otherwise) {
  Json const& member = memberOf(object, name);
  return member.is_boolean() ? member.get<bool>() : otherwise;
}

std::string textOf(Json const& object, std::string_view name, std::string_view otherwise) {
  return asText(memberOf(object, name), otherwise);
}

Json const& memberOf(Json const& object, std::string_view name) {
  static Json const none;
  if (!object.is_object()) return none;
  auto const member = object.find(name);
  return member == object.end() ? none : *member;
}

Json const& arrayOf(Json const& object, std::string_view name) {
  static Json const none = Json::array();
  Json const& member = memberOf(object, name);
  return member.is_array() ? member : none;
}

std::int64_t asInteger(Json const& value, std::int64_t otherwise) {
  constexpr double exactMax = 9007199254740992.0;
  if (value.is_number_unsigned()) {
    auto const number = value.get<std::uint64_t>();
    return number <= INT64_MAX ? static_cast<std::int64_t>(number) : otherwise;
  }
  if (value.is_number_integer()) return value.get<std::int64_t>();
  if (!value.is_number_float()) return otherwise;
  double const number = value.get<double>();
  return std::fabs(number) <= exactMax ? static_cast<std::int64_t>(number) : otherwise;
}

std::string asText(Json const& value, std::string_view otherwise) {
  return value.is_string() ? value.get<std::string>() : std::string(otherwise);
}

}  // namespace Tool
