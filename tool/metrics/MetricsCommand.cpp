#include <CivetServer.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <future>
#include <mutex>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"
#include "metrics/AskAll.h"
#include "metrics/Exposition.h"

namespace Tool {

namespace {

struct Options {
  std::string address = "127.0.0.1:9464";
  std::vector<std::string> daemons;
  double timeoutSeconds = 5;
};

/// A daemon's names come from its code; so many come from elsewhere.
constexpr std::size_t namesMax = 5'000;

/// Asks all daemons whenever somebody asks for their metrics.
class Daemons : public prometheus::Collectable {
 public:
  Daemons(std::vector<std::string> const& arguments, std::chrono::milliseconds limit)
      : limit_(limit) {
    for (auto const& argument : arguments)
      addDaemon(argument);
  }

  /// On a thread of its own: those of the server have stacks of 100 kB, too little for documents.
  std::vector<prometheus::MetricFamily> Collect() const override {
    return std::async(std::launch::async, [this] { return collected(); }).get();
  }

 private:
  std::vector<prometheus::MetricFamily> collected() const {
    std::lock_guard const lock(mutex_);
    Exposition exposition;
    auto const replies = askAll(paths_, {"monitor histograms", "stalls"}, limit_);
    for (std::size_t i = 0; i < daemons_.size(); ++i)
      add(exposition, daemons_[i], replies[i]);
    return exposition.take();
  }

  struct Daemon {
    std::string label;
    Totals totals;
    std::string trouble;
  };

  /// "PATH" or "NAME=PATH".
  void addDaemon(std::string const& argument) {
    auto const equals = argument.find('=');
    bool const named = equals > 0 && equals < argument.find('/');
    std::string const path = named ? argument.substr(equals + 1) : argument;
    std::string const file = path.substr(path.rfind('/') + 1);
    std::string const label = named ? argument.substr(0, equals) : file.substr(0, file.rfind('.'));
    for (auto const& daemon : daemons_) {
      if (daemon.label != label) continue;
      throw Failure("two daemons are called " + label + "; give their names, as in NAME=SOCKET",
                    ExitCode::usage);
    }
    paths_.push_back(path);
    daemons_.push_back({printable(label), {}, {}});
  }

  void add(Exposition& exposition, Daemon& daemon, Reply const& reply) const {
    std::string trouble;
    try {
      addReply(exposition, daemon, reply);
    } catch (std::exception const& failure) {  // memory may be short, too
      trouble = failure.what();
    }
    exposition.addUp(daemon.label, trouble.empty());
    if (!trouble.empty() && daemon.trouble.empty()) {
      std::fprintf(stderr, "brelo: %s\n", printable(daemon.label + ": " + trouble).c_str());
    }
    daemon.trouble = std::move(trouble);
  }

  void addReply(Exposition& exposition, Daemon& daemon, Reply const& reply) const {
    if (!reply.failure.empty()) throw Failure(reply.failure);
    Answer const& monitor = reply.answers[0];
    if (monitor.error) throw Failure(*monitor.error);
    Figures figures = parseMonitor(monitor.text);
    if (figures.names.size() > namesMax) throw Failure("the daemon has too many names");
    daemon.totals.add(std::move(figures));
    exposition.addTotals(daemon.label, daemon.totals);
    // A daemon without a detector of stalls says so by an error.
    Answer const& stalls = reply.answers[1];
    if (stalls.error) return;
    Json const document = readDocument(stalls.text, "stalls");
    exposition.addStalls(daemon.label, std::max(0.0, numberOf(document, "caught")),
                         std::max(0.0, numberOf(document, "suppressed")));
  }

  std::chrono::milliseconds const limit_;
  std::vector<std::string> paths_;
  // To collect is const for prometheus-cpp, and comes from any of its threads.
  std::mutex mutable mutex_;
  std::vector<Daemon> mutable daemons_;
};

/// 127.0.0.1:9464 or [::1]:9464.
bool isAddress(std::string const& text) {
  auto const colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  std::string const host = text.substr(0, colon);
  std::string const port = text.substr(colon + 1);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535) {
    return false;
  }
  in6_addr parsed;
  if (host.size() < 2 || host.front() != '[') return inet_pton(AF_INET, host.c_str(), &parsed) == 1;
  return host.back() == ']' &&
         inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &parsed) == 1;
}

std::unique_ptr<prometheus::Exposer> listen(std::string const& address) {
  if (!isAddress(address)) {
    throw Failure(
        "an address is written as 127.0.0.1:9464 or [::1]:9464: \"" + printable(address) + "\"",
        ExitCode::usage);
  }
  try {
    return std::make_unique<prometheus::Exposer>(std::vector<std::string>{
        "listening_ports", address, "num_threads", "4", "request_timeout_ms", "10000",
        "keep_alive_timeout_ms", "10000", "error_log_file", "/dev/null"});
  } catch (CivetException const&) {
    throw Failure("cannot listen at " + address +
                  "; see whether the address is this machine's and the port is free");
  }
}

void run(Options const& options) {
  // Blocked for the threads of the server, too; whichever comes ends it.
  sigset_t endings;
  ::sigemptyset(&endings);
  for (int signal : {SIGINT, SIGTERM, SIGHUP})
    ::sigaddset(&endings, signal);
  ::sigprocmask(SIG_BLOCK, &endings, nullptr);
  using std::chrono::milliseconds;
  milliseconds const limit(static_cast<long>(options.timeoutSeconds * 1e3));
  auto const daemons = std::make_shared<Daemons>(options.daemons, limit);
  auto const exposer = listen(options.address);
  exposer->RegisterCollectable(daemons);
  std::string const host = options.address.substr(0, options.address.rfind(':') + 1);
  print("http://" + host + std::to_string(exposer->GetListeningPorts().at(0)) + "/metrics\n");
  int signal = 0;
  ::sigwait(&endings, &signal);
}

}  // namespace

void addMetrics(Command const& program) {
  auto const options = std::make_shared<Options>();
  Command const command = program.subcommand(
      "metrics", "Serve the figures of daemons to Prometheus, over HTTP", options, run);
  command
      .value("SOCKET", options->daemons,
             "Unix sockets at which daemons answer, each after NAME= for its label "
             "unless that is the file's name")
      .required();
  command.value("--listen", options->address, "the address to listen at").defaultShown();
  command.value("--timeout", options->timeoutSeconds, "seconds that daemons may take for a scrape")
      .within(0.01, 1e3)
      .defaultShown();
}

}  // namespace Tool
