#include "BreloDaemon/Connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Time.h"
#include "BreloDaemon/internal/ConnectorCore.h"

namespace BreloDaemon {

namespace {

double seconds(std::chrono::nanoseconds span) {
  return std::chrono::duration<double>(span).count();
}

std::error_code systemError(int value) {
  return {value, std::generic_category()};
}

}  // namespace

Connector::Core::Attempt::Attempt(Core& core, std::vector<std::string> texts, Handler done)
    : TimerTask(core.scheduler_, core.options_.priority, core.options_.name + ":connect"),
      core_(&core),
      done_(std::move(done)),
      texts_(std::move(texts)),
      error_(std::make_error_code(std::errc::invalid_argument)),
      deadline_(Brelo::time() + seconds(core.options_.timeLimit)),
      control_(Brelo::Platform::getFdControl(this)) {
  control_->setReads(false);
  std::reverse(texts_.begin(), texts_.end());
  scheduleTask();
}

void Connector::Core::Attempt::cancel() {
  canceled_ = true;
  scheduleTask();
}

void Connector::Core::Attempt::letGo() {
  if (lookup_ != 0) core_->resolver_.cancel(std::exchange(lookup_, 0));
  core_ = nullptr;
  closeSocket();
  stopTimerTask();
}

void Connector::Core::Attempt::writeFdEvent(int) {
  writable_ = true;
  scheduleTask();
}

void Connector::Core::Attempt::taskExecute() {
  if (core_ == nullptr) return;
  std::optional<std::error_code> result;
  try {
    result = step();
  } catch (std::bad_alloc const&) {
    result = systemError(ENOMEM);
  }
  if (result) finish(*result);
}

/// How the attempt ends, if it does.
std::optional<std::error_code> Connector::Core::Attempt::step() {
  if (canceled_) return systemError(ECANCELED);
  if (std::exchange(writable_, false) && connected()) return std::error_code();
  if (Brelo::time() >= deadline_) return systemError(ETIMEDOUT);
  if (fd_ && !error_) error_ = systemError(ETIMEDOUT);  // its part of the time is over
  closeSocket();
  return next();
}

/// Whether the connection stands; the reason, otherwise, is in `error_`.
bool Connector::Core::Attempt::connected() {
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  error_ = systemError(error);
  return error == 0;
}

/// Goes on until there is something to wait for.
std::optional<std::error_code> Connector::Core::Attempt::next() {
  while (lookup_ == 0) {
    if (!addresses_.empty()) {
      SocketAddress const address = addresses_.back();
      addresses_.pop_back();
      if (begin(address)) return std::nullopt;
    } else if (!texts_.empty()) {
      std::string const text = std::move(texts_.back());
      texts_.pop_back();
      if (lookUp(text)) break;
    } else {
      return error_;
    }
  }
  wait(deadline_ - Brelo::time());
  return std::nullopt;
}

void Connector::Core::Attempt::wait(double limit) {
  scheduleTaskDelay(std::max(limit, 1e-9));
}

/// Turns a text into addresses. True if that is to be waited for.
bool Connector::Core::Attempt::lookUp(std::string const& text) {
  if (auto const address = SocketAddress::parse(text)) {
    addresses_.push_back(address);
    return false;
  }
  auto const colon = text.rfind(':');
  if (colon == text.npos || colon == 0 || text.front() == '[' || text.front() == '/') {
    error_ = systemError(EINVAL);
    return false;
  }
  try {
    lookup_ = core_->resolver_.start(text.substr(0, colon), text.substr(colon + 1),
                                     [this](auto addresses, std::error_code error) {
                                       lookup_ = 0;
                                       error_ = error;
                                       addresses_ = std::move(addresses);
                                       std::reverse(addresses_.begin(), addresses_.end());
                                       scheduleTask();
                                     });
    return true;
  } catch (std::system_error const& error) {
    error_ = error.code();
    return false;
  }
}

/// True if the connection is under way, or stands.
bool Connector::Core::Attempt::begin(SocketAddress const& address) {
  int const flags = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
  fd_.reset(::socket(address.family(), flags, 0));
  int const on = 1;
  bool const internet = address.family() != AF_UNIX;
  if (!fd_ ||
      (internet && ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)) {
    error_ = systemError(errno);
    return false;
  }
  if (::connect(fd_.get(), address.get(), address.size()) == 0) {
    writable_ = true;
    scheduleTask();
    return true;
  }
  error_ = systemError(errno);
  if (errno != EINPROGRESS && errno != EINTR) return false;
  error_.clear();
  try {
    control_->setWrites(true);
    control_->setFd(fd_.get());
  } catch (std::system_error const& error) {
    error_ = error.code();
    closeSocket();
    return false;
  }
  wait(std::min(deadline_ - Brelo::time(), seconds(core_->options_.addressTimeLimit)));
  return true;
}

void Connector::Core::Attempt::closeSocket() {
  control_->setWrites(false);
  control_->delFd();
  fd_.reset();
}

void Connector::Core::Attempt::finish(std::error_code error) {
  std::shared_ptr<Stream> stream;
  control_->delFd();
  stopTimerTask();
  if (!error) {
    try {
      stream = core_->makeStream(std::move(fd_));
    } catch (std::bad_alloc const&) {
      error = systemError(ENOMEM);
    } catch (std::system_error const& failed) {
      error = failed.code();
    }
  }
  if (lookup_ != 0) core_->resolver_.cancel(std::exchange(lookup_, 0));
  auto const done = std::exchange(done_, nullptr);
  std::exchange(core_, nullptr)->ended(*this);
  if (done) done(std::move(stream), error);  // which may end the connector
}

Connector::Core::Core(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                      ConnectorOptions const& options)
    : scheduler_(std::move(scheduler)),
      options_(options),
      resolver_(scheduler_, options.priority, options.name + ":resolve"),
      step_(
          "connector " + options.name, [] {}, [this] { stop(); }) {}

Connector::Core::~Core() {
  for (auto const& each : attempts_)
    each->letGo();
}

void Connector::Core::connect(Addresses const& addresses, Handler done) {
  attempts_.push_back(std::make_shared<Attempt>(*this, addresses.texts(), std::move(done)));
  if (stopping_) attempts_.back()->cancel();
}

std::shared_ptr<Stream> Connector::Core::makeStream(Descriptor fd) {
  if (streams_.size() == streams_.capacity()) {
    streams_.erase(std::remove_if(streams_.begin(), streams_.end(),
                                  [](auto const& each) { return each.expired(); }),
                   streams_.end());
    streams_.reserve(2 * streams_.size() + 8);
  }
  auto stream =
      std::make_shared<Stream>(scheduler_, options_.priority, options_.name, std::move(fd));
  streams_.push_back(stream);
  return stream;
}

void Connector::Core::ended(Attempt const& attempt) {
  attempts_.remove_if([&](auto const& each) { return each.get() == &attempt; });
  if (stopping_ && attempts_.empty()) step_.done();
}

void Connector::Core::stop() {
  stopping_ = true;
  for (auto const& each : attempts_)
    each->cancel();
  for (auto const& each : streams_) {
    if (auto const stream = each.lock()) stream->close();
  }
  if (attempts_.empty()) step_.done();
}

Connector::Connector(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                     ConnectorOptions const& options)
    : core_(std::make_unique<Core>(std::move(scheduler), options)) {}

Connector::~Connector() = default;

void Connector::connect(Addresses const& addresses, Handler done) {
  core_->connect(addresses, std::move(done));
}

std::size_t Connector::pending() const {
  return core_->pending();
}

}  // namespace BreloDaemon
