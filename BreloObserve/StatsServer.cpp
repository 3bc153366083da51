#include "BreloObserve/StatsServer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Time.h"
#include "BreloObserve/internal/StatsServerCore.h"

namespace BreloObserve {

using Impl::StatsSession;

namespace {

constexpr std::chrono::nanoseconds stopLimit = std::chrono::seconds(1);

[[noreturn]] void throwFor(std::string const& address, int error, char const* what) {
  throw std::system_error(error, std::generic_category(), address + ": " + what);
}

bool startsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

/// The path of a socket file; empty for one that is handed over. What is in no file system has no
/// rights, and is refused.
std::string pathOf(std::string const& address) {
  if (address == "systemd" || startsWith(address, "systemd:")) return {};
  bool const prefixed = startsWith(address, "unix:");
  std::string const path = prefixed ? address.substr(5) : address;
  bool const isPath = prefixed ? !path.empty() : path.find('/') != path.npos;
  if (!isPath || path.front() == '@') throwFor(address, EINVAL, "is no path of a socket");
  return path;
}

BreloDaemon::ListenerOptions listenerOptions(StatsServerOptions const& options) {
  BreloDaemon::ListenerOptions made;
  made.name = "stats";
  made.priority = options.priority;
  made.connectionsMax = 2 * options.clientsMax;  // those that are told to go included
  bool const changesHands = options.owner || options.group;
  made.unixMode = changesHands ? options.unixMode & 0700 : options.unixMode;
  return made;
}

/// The whole rights follow the owner.
void giveAway(std::string const& path, StatsServerOptions const& options) {
  if (path.empty() || (!options.owner && !options.group)) return;
  auto const keep = static_cast<uid_t>(-1);
  if (::lchown(path.c_str(), options.owner.value_or(keep), options.group.value_or(keep)) != 0) {
    throwFor(path, errno, "lchown");
  }
  if (::fchmodat(AT_FDCWD, path.c_str(), options.unixMode, AT_SYMLINK_NOFOLLOW) != 0) {
    throwFor(path, errno, "fchmodat");
  }
}

template <class Part>
std::unique_ptr<Part> madeUnless(bool needless,
                                 std::shared_ptr<Brelo::TaskSchedulerRoot> const& root) {
  return needless ? nullptr : std::make_unique<Part>(root);
}

double inSeconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

StatsServer::Core::Core(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::string const& address,
                        StatsServerOptions const& options)
    : path_(pathOf(address)),
      root_(std::move(root)),
      options_(options),
      ownMonitor_(madeUnless<Monitor>(options.monitor != nullptr || !options.makesMonitor, root_)),
      ownStallDetector_(madeUnless<StallDetector>(
          options.stallDetector != nullptr || !options.makesStallDetector, root_)),
      answers_(root_, options.monitor != nullptr ? options.monitor : ownMonitor_.get(),
               options.stallDetector != nullptr ? options.stallDetector : ownStallDetector_.get(),
               options.traceChanges),
      answering_(root_, options.priority, "stats:answer", [this] { answerNext(); }),
      sendLimit_(root_, options.priority, "stats:limit", [this] { dropThoseThatDoNotRead(); }),
      listener_(
          root_, path_.empty() ? address : "unix:" + path_,
          [this](BreloDaemon::Stream& client) { begin(client); }, listenerOptions(options)) {
  if (options.sendLimit <= options.sendLimit.zero()) {
    BRELO_FAIL("StatsServer", "send limit of {} ns", options.sendLimit.count());
  }
  giveAway(path_, options);
  if (listener_.port() != 0) throwFor(address, EINVAL, "is no Unix socket");
  listener_.onStop([this](BreloDaemon::Stream& client) {
    for (StatsSession& session : sessions_) {
      if (session.isOf(client)) return session.stop(std::min(options_.sendLimit, stopLimit));
    }
    client.abort();  // it has not begun
  });
}

StatsServer::Core::~Core() {
  for (StatsSession& session : sessions_)
    session.historyWishIs(0);
  try {
    followHistoryWishes();
  } catch (std::exception const&) {  // no memory for a smaller ring
  }
}

std::size_t StatsServer::Core::clients() const {
  return static_cast<std::size_t>(
      std::count_if(sessions_.begin(), sessions_.end(),
                    [](StatsSession const& session) { return !session.dismissed(); }));
}

void StatsServer::Core::begin(BreloDaemon::Stream& client) {
  bool const room = hasRoom();
  sessions_.emplace_back(*this, client);
  if (!room) sessions_.back().dismiss("too many clients");
}

/// Or makes some: who has been answered stands behind those who have been silent for longer.
bool StatsServer::Core::hasRoom() {
  if (clients() < options_.clientsMax) return true;
  double const since = Brelo::time() - inSeconds(options_.silentLimit);
  auto const silent =
      std::find_if(sessions_.begin(), sessions_.end(),
                   [&](StatsSession const& session) { return session.silentSince(since); });
  if (silent == sessions_.end()) return false;
  silent->dismiss("silent for too long, and others ask");
  return true;
}

void StatsServer::Core::ended(StatsSession& session) {
  sessions_.remove_if([&](StatsSession const& each) { return &each == &session; });
  if (sessions_.empty()) sendLimit_.cancel();
  try {
    followHistoryWishes();
  } catch (std::exception const&) {  // as at the end
  }
}

/// One request a run; who has been answered goes to the end.
void StatsServer::Core::answerNext() {
  auto const waits = [](StatsSession const& session) { return session.requestWaits(); };
  auto const next = std::find_if(sessions_.begin(), sessions_.end(), waits);
  if (next == sessions_.end()) return;
  sessions_.splice(sessions_.end(), sessions_, next);
  next->answer();
  if (std::any_of(sessions_.begin(), sessions_.end(), waits)) answering_.schedule();
}

void StatsServer::Core::followHistoryWishes() {
  unsigned wanted = 0;
  for (StatsSession const& session : sessions_)
    wanted = std::max(wanted, session.historyWish());
  unsigned const current = root_->historyEntryCount();
  if (current != raisedHistory_) ownHistory_ = current;  // as the daemon has it, or has set it now
  wanted = std::max(wanted, ownHistory_);
  if (wanted != current) root_->historyEntryCountIs(wanted);
  raisedHistory_ = wanted;
}

void StatsServer::Core::watchSending() {
  if (!sendLimit_.armed())
    sendLimit_.every(std::max(options_.sendLimit / 4, std::chrono::nanoseconds(1000)));
}

void StatsServer::Core::dropThoseThatDoNotRead() {
  double const now = Brelo::time();
  bool any = false;
  for (StatsSession& session : sessions_)
    any |= session.stillSends(now, inSeconds(options_.sendLimit));
  if (!any) sendLimit_.cancel();
}

StatsServer::StatsServer(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::string const& address,
                         StatsServerOptions const& options)
    : core_(std::make_unique<Core>(std::move(root), address, options)) {}

StatsServer::~StatsServer() = default;

std::string const& StatsServer::address() const {
  return core_->address();
}

std::size_t StatsServer::clients() const {
  return core_->clients();
}

}  // namespace BreloObserve
