#include <cmath>

#include "Commands.h"
#include "Documents.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  std::uint64_t top = 0;
  std::string sort;
  std::string group;
  bool histograms = false;
  bool json = false;
};

std::string requestOf(Options const& options) {
  std::string request = "monitor";
  if (options.top != 0) request += " top=" + std::to_string(options.top);
  if (!options.sort.empty()) request += " sort=" + requestValue(options.sort);
  if (!options.group.empty()) request += " group=" + requestValue(options.group);
  if (options.histograms) request += " histograms";
  return request;
}

std::string nsText(Json const& object, std::string_view name) {
  return lengthText(numberOf(object, name, NAN) / 1e9);
}

std::string percentText(Json const& object, std::string_view name) {
  return Tool::percentText(numberOf(object, name, NAN));
}

std::string countText(Json const& object, std::string_view name) {
  return Tool::countText(numberOf(object, name, NAN));
}

std::string headText(Json const& document) {
  DocumentHead const head = headOf(document);
  Json const& loop = memberOf(document, "loop");
  Json const& slip = memberOf(loop, "slip_ns");
  std::string text =
      printable(head.process) + " (pid " + std::to_string(head.pid) + "), up " +
      lengthText(std::max(head.timeUnixSeconds - head.startedUnixSeconds, 0.0)) + ", figures of " +
      lengthText(numberOf(memberOf(document, "window"), "length_s")) + "\n" +
      "loop: " + percentText(loop, "running_ratio") + " running, " +
      percentText(loop, "polling_ratio") + " polling, " + percentText(loop, "waiting_ratio") +
      " waiting; " + countText(loop, "runs_per_s") + " runs/s; " + countText(loop, "runnable") +
      " of " + countText(loop, "tasks") + " tasks runnable\n" + "slip: median " +
      nsText(slip, "p50") + ", 99 % " + nsText(slip, "p99") + ", 99.9 % " + nsText(slip, "p999") +
      ", longest " + nsText(slip, "max") + "\n";
  Json const& queued = memberOf(loop, "longest_queued");
  if (queued.is_object()) {
    text += "longest queued: " + printable(textOf(queued, "name", "?")) + " in " +
            printable(textOf(queued, "group", "?")) + " for " +
            lengthText(numberOf(queued, "queued_s")) + "\n";
  }
  return text;
}

std::vector<std::string> cellsOf(Json const& name) {
  return {textOf(name, "group", "?"),
          textOf(name, "name", "?"),
          textOf(name, "priority"),
          countText(name, "tasks"),
          countText(name, "runnable"),
          countText(name, "pending"),
          countText(name, "runs"),
          countText(name, "runs_per_s"),
          percentText(name, "run_ratio"),
          nsText(name, "run_mean_ns"),
          nsText(name, "run_p99_ns"),
          nsText(name, "run_max_ns"),
          nsText(name, "wait_mean_ns"),
          nsText(name, "wait_p99_ns"),
          nsText(name, "wait_max_ns"),
          countText(name, "work_per_s"),
          Tool::countText(numberOf(name, "violations_200") + numberOf(name, "violations_500"))};
}

std::string tableText(Json const& document) {
  using Align = Table::Align;
  Table table({{"GROUP", Align::left},
               {"NAME", Align::left},
               {"PRIORITY", Align::left},
               {"TASKS"},
               {"RUNNABLE"},
               {"PENDING"},
               {"RUNS"},
               {"RUNS/S"},
               {"LOOP"},
               {"RUN"},
               {"99%"},
               {"MAX"},
               {"WAIT"},
               {"99%"},
               {"MAX"},
               {"WORK/S"},
               {"LATE"}});
  for (Json const& name : arrayOf(document, "names")) {
    table.line(cellsOf(name));
  }
  Json const& rest = memberOf(document, "rest");
  if (rest.is_object()) table.line(cellsOf(rest));
  return table.text();
}

void run(Options const& options) {
  std::string const answer = options.daemon.connect().ask(requestOf(options));
  if (options.json) return print(answer);
  Json const document = readDocument(answer, "monitor");
  print(headText(document) + "\n" + tableText(document));
}

}  // namespace

void addMonitor(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "monitor", "Print how the loop's time is spent, and on what, as a table", options, run);
  addTarget(command, options->daemon);
  command.value("--top", options->top, "so many names, the others together; 0 for all")
      .notNegative()
      .defaultShown();
  command.value("--sort", options->sort,
                "by this column of the document, the largest first (run_s unless given)");
  command.value("--group", options->group, "only the names of this group");
  Option const json = command.flag("--json", options->json, "the daemon's document as it is");
  command.flag("--histograms", options->histograms, "with the histograms behind the figures")
      .needs(json);
  command.footer("RUN and WAIT are means; LATE counts runs of at least twice the quantum.");
}

}  // namespace Tool
