#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Brelo {
class TaskSchedulerRoot;
}

namespace BreloObserve::Impl {

/// A JSON document of the observatory in the making: one object, which begins with its kind, its
/// version, and where and when it was made.
///
///     {"document":"monitor","version":1,"process":{"name":"cached","pid":123,
///      "started_unix_s":1.5,"library":"2.0.0"},"time_unix_s":2.5,"time_monotonic_ns":3,...}
///
/// Its text is in memory; bytes of names that are not UTF-8 become U+FFFD.
class Document {
 public:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

  /// Opens the object and writes what all documents begin with.
  Document(std::string_view kind, int version, Brelo::TaskSchedulerRoot const& root);

  Writer& writer() { return writer_; }  ///< amid the object
  void key(std::string_view name);      ///< of the next value
  void string(std::string_view text);   ///< a value
  /// A member of the object that is open.
  /// @{
  void member(std::string_view name, std::string_view text);
  void member(std::string_view name, char const* text) { member(name, std::string_view(text)); }
  void member(std::string_view name, double number);  ///< null if it is not finite
  void member(std::string_view name, std::uint64_t number);
  void member(std::string_view name, std::int64_t number);
  void member(std::string_view name, bool value);
  void memberNull(std::string_view name);
  /// @}
  /// Starts a new line, which readers pass over.
  void newLine();
  std::size_t size() const { return buffer_.GetSize(); }  ///< bytes so far

  /// Closes the object and gives the document away, with a new line at its end.
  std::string finish();

 private:
  rapidjson::StringBuffer buffer_;
  Writer writer_{buffer_};
};

}  // namespace BreloObserve::Impl
