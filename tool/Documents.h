#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Tool {

using Json = nlohmann::json;

/// What all documents of a daemon begin with (doc/observe/protocol.md).
struct DocumentHead {
  std::string process;  ///< the daemon's name
  std::int64_t pid = 0;
  double startedUnixSeconds = 0;
  std::string library;
  double timeUnixSeconds = 0;
  std::int64_t timeMonotonicNs = 0;

  /// Whether both come from the same process.
  bool sameProcess(DocumentHead const& other) const {
    return pid == other.pid && startedUnixSeconds == other.startedUnixSeconds;
  }
};

/// The document that a daemon has sent, if it is of that kind and of a version that is known; else
/// a `Failure` without the socket's path.
Json readDocument(std::string_view text, std::string_view kind);
DocumentHead headOf(Json const& document);

/// Members of an object. What is missing, of another type or out of range is what `otherwise` says,
/// and so are all members of what is no object: a daemon of another version, or one that lies, is
/// no reason to fail. References live as long as the object.
/// @{
double numberOf(Json const& object, std::string_view name, double otherwise = 0);
std::int64_t integerOf(Json const& object, std::string_view name, std::int64_t otherwise = 0);
bool flagOf(Json const& object, std::string_view name, bool otherwise = false);
std::string textOf(Json const& object, std::string_view name, std::string_view otherwise = "");
/// The member, or null.
Json const& memberOf(Json const& object, std::string_view name);
Json const& memberOf(Json&& object, std::string_view name) = delete;
/// The member if it is an array, or else an empty one.
Json const& arrayOf(Json const& object, std::string_view name);
Json const& arrayOf(Json&& object, std::string_view name) = delete;
/// @}

/// A number of at most 2^53, or `otherwise`.
std::int64_t asInteger(Json const& value, std::int64_t otherwise = 0);
/// A text, or `otherwise`.
std::string asText(Json const& value, std::string_view otherwise = "");

}  // namespace Tool
