#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Tool {

/// Writes a Chrome trace file, in the form of a JSON object with `traceEvents`, as chrome://tracing
/// and Perfetto read it. Times are nanoseconds on one clock; what is written is kept nowhere.
class TraceWriter {
 public:
  using Sink = std::function<void(std::string_view)>;
  /// A row of the picture: a thread of a process, in the terms of the file.
  struct Track {
    int process;
    int thread;
  };
  /// What is shown of an event when it is selected: the members of a JSON object.
  class Arguments {
   public:
    Arguments& text(std::string_view name, std::string_view value);
    Arguments& number(std::string_view name, double value);
    Arguments& count(std::string_view name, std::uint64_t value);
    std::string const& members() const { return members_; }

   private:
    void key(std::string_view name);
    std::string members_;
  };

  explicit TraceWriter(Sink sink);

  /// A slice whose end is not known yet. The slices of a track nest.
  /// @{
  void begin(Track track, std::int64_t timeNs, std::string_view name);
  void end(Track track, std::int64_t timeNs);
  /// @}
  void slice(Track track, std::int64_t startNs, std::int64_t endNs, std::string_view name,
             char const* category, Arguments const& arguments);
  /// An arrow from one slice to another, at these times in them.
  void flow(Track from, std::int64_t fromNs, Track to, std::int64_t toNs);
  void instant(Track track, std::int64_t timeNs, std::string_view name, char const* category,
               Arguments const& arguments);
  void counter(int process, std::int64_t timeNs, std::string_view name, std::uint64_t value);
  /// @{
  void nameProcess(int process, std::string_view name);
  void nameTrack(Track track, std::string_view name, int position);
  /// @}

  /// Gives the sink what it has not got yet.
  void flush();
  /// Writes the file's end; nothing comes after it.
  void finish();

 private:
  void open(char const* phase, Track track, std::int64_t timeNs);
  void nameAndCategory(std::string_view name, char const* category);
  void close(Arguments const& arguments);
  void close();

  Sink sink_;
  std::string buffer_;
  std::uint64_t flows_ = 0;
  bool empty_ = true;
};

}  // namespace Tool
