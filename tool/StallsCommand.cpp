#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Documents.h"
#include "Output.h"
#include "Text.h"

namespace Tool {

namespace {

struct Options {
  Target daemon;
  bool json = false;
};

/// A word of a shell's command line, whatever is in it.
std::string shellWord(std::string_view text) {
  std::string word = "'";
  for (char const c : text) {
    word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return word + "'";
}

bool isOffset(std::string_view text) {
  return text.size() > 2 && text.size() <= 18 && text.substr(0, 2) == "0x" &&
         text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
}

/// What tells the lines of the source: a command for each module, in the order of the frames.
std::string addr2lineCommands(Json const& frames) {
  std::vector<std::pair<std::string, std::string>> offsetsOf;
  for (Json const& frame : frames) {
    std::string const module = textOf(frame, "module");
    std::string const offset = textOf(frame, "offset");
    if (module.empty() || printable(module) != module || !isOffset(offset)) continue;
    auto const known = std::find_if(offsetsOf.begin(), offsetsOf.end(),
                                    [&](auto const& each) { return each.first == module; });
    if (known == offsetsOf.end()) {
      offsetsOf.emplace_back(module, " " + offset);
    } else {
      known->second += " " + offset;
    }
  }
  std::string commands;
  for (auto const& [module, offsets] : offsetsOf) {
    commands += "  addr2line -Cfipe " + shellWord(module) + offsets + "\n";
  }
  return commands;
}

// Names of templates go on for hundreds of columns, and would push the modules out of sight.
constexpr std::size_t functionColumns = 60;

std::string framesText(Json const& frames) {
  Table table({{"", Table::Align::right}, {"", Table::Align::left}, {"", Table::Align::left}});
  std::size_t number = 0;
  for (Json const& frame : frames) {
    std::string const function = cutTo(printable(textOf(frame, "function")), functionColumns);
    table.line({"#" + std::to_string(number++), function.empty() ? "?" : function,
                textOf(frame, "module", "?") + "+" + textOf(frame, "offset", "?")});
  }
  return table.text();
}

std::string stallText(Json const& stall, double now) {
  auto const count = integerOf(stall, "count", 1);
  double const last = numberOf(stall, "last_s");
  double const cpu = numberOf(stall, "last_cpu_s");
  char const* const kind = cpu < last / 2 ? "blocked" : "busy";
  std::string text = printable(textOf(stall, "name", "?")) + " in " +
                     printable(textOf(stall, "group", "?")) + ": " + std::to_string(count) +
                     (count == 1 ? " stall" : " stalls") + ", the longest " +
                     lengthText(numberOf(stall, "longest_s")) + ", the latest " + lengthText(last) +
                     " (" + lengthText(cpu) + " of CPU time: " + kind + "), " +
                     lengthText(std::max(now - numberOf(stall, "last_unix_s", now), 0.0)) + " ago";
  if (flagOf(stall, "lasting")) text += ", still lasting";
  Json const& frames = arrayOf(stall, "frames");
  return text + "\n" + framesText(frames) + addr2lineCommands(frames);
}

void run(Options const& options) {
  Connection connection = options.daemon.connect();
  std::string const answer = connection.ask("stalls");
  if (options.json) return print(answer);
  Json const document = readDocument(answer, "stalls");
  std::string text = std::to_string(integerOf(document, "caught")) + " stalls beyond " +
                     lengthText(numberOf(document, "limit_s")) + " caught, " +
                     std::to_string(integerOf(document, "suppressed")) + " not traced\n";
  for (Json const& stall : arrayOf(document, "stalls")) {
    text += "\n" + stallText(stall, headOf(document).timeUnixSeconds);
  }
  print(text);
}

}  // namespace

void addStalls(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "stalls", "Print the runs that held the loop too long, with their stacks", options, run);
  addTarget(command, options->daemon);
  command.flag("--json", options->json, "the daemon's document as it is");
}

}  // namespace Tool
