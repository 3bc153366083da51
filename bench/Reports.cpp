// The reports: what one task costs in a snapshot, in the JSON document and in the text report, and
// how long an export to a slow reader holds the loop.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <system_error>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "Catalogue.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr unsigned noOrder = Brelo::TaskSchedulerSnapshot::displayOrderUnset;
constexpr std::uint64_t tasks = 10'000;

class QuietTask : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

/// A root with that many tasks, each with figures to report.
struct BusyTree {
  explicit BusyTree(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
      all.push_back(std::make_shared<QuietTask>(root, Brelo::TaskPriority::normal,
                                                "session-" + std::to_string(i)));
      all.back()->taskRunCount = static_cast<std::uint32_t>(i);
      all.back()->taskTotalRunTime = Brelo::TaskTimeDuration(static_cast<std::int64_t>(i) * 12345);
      all.back()->taskWorkCountInc(i);
    }
  }
  auto freeze() const { return root->snapshot("", true, false, false, noOrder); }

  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("bench");
  std::vector<std::shared_ptr<QuietTask>> all;
};

double snapshots(std::uint64_t count) {
  BusyTree const tree(count);
  Run run(1);
  benchmark::DoNotOptimize(tree.freeze());
  run.finished();
  return run.seconds();
}

/// A stream into the memory buffer that the peer writes to as well: a std::ostringstream would
/// spend a third of the time on its own growth.
class BufferSink : public std::streambuf {
 protected:
  std::streamsize xsputn(char const* text, std::streamsize size) override {
    std::memcpy(buffer_.Push(static_cast<std::size_t>(size)), text, static_cast<std::size_t>(size));
    return size;
  }
  int_type overflow(int_type c) override {
    buffer_.Put(static_cast<char>(c));
    return c;
  }

 private:
  rapidjson::StringBuffer buffer_;
};

double jsonObjects(std::uint64_t count) {
  BusyTree const tree(count);
  auto const frozen = tree.freeze();
  BufferSink sink;
  std::ostream text(&sink);
  Run run(1);
  frozen->renderJson(*Brelo::TaskScheduler::PrintContextIs(text));
  run.finished();
  return run.seconds();
}

/// From the live tasks to the last line.
double textRows(std::uint64_t count) {
  BusyTree const tree(count);
  BufferSink sink;
  std::ostream text(&sink);
  Run run(1);
  tree.root->statsRenderTextForDebug(text, true, true, false, false);
  run.finished();
  return run.seconds();
}

/// The members of a task's object, with the same kinds of values.
template <class Writer>
void writeObject(Writer& writer, std::uint64_t i) {
  std::string const name = "session-" + std::to_string(i);
  std::string const address = "@0x00007f1234567890";
  writer.StartObject();
  writer.Key("name");
  writer.String(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  writer.Key("address");
  writer.String(address.data(), static_cast<rapidjson::SizeType>(address.size()));
  writer.Key("priority");
  writer.String("normal");
  for (char const* key :
       {"onRunQueue", "currentlyRunning", "suspended", "hasTimer", "timerRunning"}) {
    writer.Key(key);
    writer.Bool(false);
  }
  writer.Key("runCount");
  writer.Uint(static_cast<unsigned>(i));
  writer.Key("totalRunTime");
  writer.Double(static_cast<double>(i) * 12345 / 1e9);
  for (char const* key : {"lastSchedulingLatency", "schedulingLatencyHighWaterMark"}) {
    writer.Key(key);
    writer.Double(0.0);
  }
  for (char const* key : {"qv200", "qv500", "maxMs"}) {
    writer.Key(key);
    writer.Uint(0);
  }
  writer.Key("workCount");
  writer.StartObject();
  writer.Key("total");
  writer.Uint(static_cast<unsigned>(i));
  writer.Key("decayingAvg");
  writer.Double(static_cast<double>(i));
  writer.Key("highwater");
  writer.Int(static_cast<int>(i));
  writer.EndObject();
  writer.EndObject();
}

template <class Stream>
double rapidJsonObjects(Stream& stream, std::uint64_t count) {
  rapidjson::Writer<Stream> writer(stream);
  Run run(1);
  writer.StartArray();
  for (std::uint64_t i = count; i > 0; --i)
    writeObject(writer, i);
  writer.EndArray();
  run.finished();
  return run.seconds();
}

double rapidJsonBuffer(std::uint64_t count) {
  rapidjson::StringBuffer buffer;
  return rapidJsonObjects(buffer, count);
}

double rapidJsonOStream(std::uint64_t count) {
  BufferSink sink;
  std::ostream text(&sink);
  rapidjson::BasicOStreamWrapper<std::ostream> wrapper(text);
  return rapidJsonObjects(wrapper, count);
}

/// The longest time for which one step of the loop does not return, while a reader takes 1 kB
/// between any two steps.
std::vector<double> longestHold(std::uint64_t) {
  BusyTree const tree(tasks);
  int pipe[2];
  if (::pipe2(pipe, O_NONBLOCK) != 0)
    throw std::system_error(errno, std::generic_category(), "pipe");
  bool done = false;
  tree.root->snapshotRenderJsonAsync(pipe[1], {tree.freeze()}, [&] { done = true; });
  double longest = 0;
  char block[1024];
  while (!done) {
    double const start = clockSeconds(CLOCK_MONOTONIC);
    Brelo::Platform::doEventLoopInWaitfor(0.0);
    longest = std::max(longest, clockSeconds(CLOCK_MONOTONIC) - start);
    if (::read(pipe[0], block, sizeof block) < 0) continue;
  }
  ::close(pipe[0]);
  return {longest * 1e9};
}

}  // namespace

void addReports(Catalogue& catalogue) {
  catalogue.measure("snapshot", "per task of 10,000", "brelo", tasks, snapshots);
  catalogue.measure("JSON object", "per task of 10,000", "brelo", tasks, jsonObjects);
  catalogue.measure("JSON object", "per task of 10,000", "rapidjson-buffer", tasks,
                    rapidJsonBuffer);
  catalogue.measure("JSON object", "per task of 10,000", "rapidjson-ostream", tasks,
                    rapidJsonOStream);
  catalogue.measure("text row", "per task of 10,000", "brelo", tasks, textRows);
  catalogue.aim({"JSON object", "per task of 10,000", "brelo", 1.5, "rapidjson-buffer"});
  catalogue.aim({"snapshot", "per task of 10,000", "brelo", 100, ""});
  catalogue.aim({"text row", "per task of 10,000", "brelo", 1500, ""});
  std::vector<Figure> const hold = {{"export hold", "10,000 tasks, 1 kB a step", "ns"}};
  catalogue.measureFiguresOnBackends(hold, 1, longestHold);
  catalogue.aimOnBackends(hold.front().unit, hold.front().form, 20e6, "");  // a default quantum
}

}  // namespace Bench
