#include "BreloDaemon/Listener.h"

#include <sys/socket.h>

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "Brelo/Debug.h"
#include "BreloDaemon/internal/ListenerCore.h"
#include "BreloDaemon/internal/SocketAddress.h"
#include "BreloDaemon/internal/StreamKeeper.h"

namespace BreloDaemon {

namespace {

Brelo::ModuleTrace const trace("BreloListener");

constexpr std::chrono::milliseconds pauseWithoutMeans(100);

/// The connection has failed, and not the socket that it came by.
bool concernsConnection(int error) {
  switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPERM:
    case ENETDOWN:
    case EPROTO:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
      return true;
    default:
      return false;
  }
}

std::string listing(std::vector<std::string> const& addresses) {
  std::string text = "listener";
  for (std::string const& each : addresses)
    text += " " + each;
  return text;
}

}  // namespace

Listener::Core::Acceptor::Acceptor(Core& core, std::shared_ptr<Brelo::TaskScheduler> scheduler,
                                   int fd)
    : FileDescriptorTask(std::move(scheduler), core.options_.priority,
                         core.options_.name + ":accept"),
      core_(&core) {
  taskQuantumIs(core.options_.quantum);
  taskWatchFdIs(fd);
}

void Listener::Core::Acceptor::letGo() {
  core_ = nullptr;
  taskWatchFdDel();
}

void Listener::Core::Acceptor::taskExecuteReadable() {
  while (core_ != nullptr && core_->accepts()) {
    Descriptor fd(::accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd) {
      taskWorkCountInc(1);
      core_->take(std::move(fd));
    } else if (errno == EAGAIN) {
      return;
    } else if (!concernsConnection(errno)) {
      return core_->pauseFor(errno);
    }
    if (taskShouldYield()) return;
  }
}

Listener::Core::RetryTask::RetryTask(Core& core, std::shared_ptr<Brelo::TaskScheduler> scheduler)
    : TimerTask(std::move(scheduler), core.options_.priority, core.options_.name + ":retry"),
      core_(core) {}

Listener::Core::Core(std::shared_ptr<Brelo::TaskScheduler> scheduler, Addresses const& addresses,
                     StreamHandler onStream, ListenerOptions const& options)
    : onStream_(std::move(onStream)),
      options_(options),
      group_(Brelo::TaskGroup::TaskGroupIs(options.name, options.priority, true, scheduler)),
      step_(
          listing(addresses.texts()), [this] { stopAccepting(); }, [this] { close(); }) {
  group_->taskGroupQuantumIs(options.quantum);
  group_->defaultTaskQuantumIs(options.quantum);
  retry_ = std::make_shared<RetryTask>(*this, scheduler);
  ListenSettings const settings{options.backlog, options.reusePort, options.unixMode};
  for (std::string const& address : addresses.texts()) {
    for (ListenSocket& socket : listenAt(address, settings))
      sockets_.push_back(std::move(socket));
  }
  for (ListenSocket const& socket : sockets_) {
    auto const bound = SocketAddress::ofSocket(socket.fd.get());
    addresses_.push_back(bound.text());
    if (port_ == 0) port_ = bound.port();
  }
  for (ListenSocket const& socket : sockets_)
    acceptors_.push_back(std::make_shared<Acceptor>(*this, scheduler, socket.fd.get()));
  updateWatches();
}

bool Listener::Core::accepts() const {
  return !paused_ && streams_.size() < options_.connectionsMax;
}

void Listener::Core::take(Descriptor fd) {
  try {
    streams_.push_front(nullptr);
    auto& stream = streams_.front();
    try {
      stream = std::make_shared<Stream>(group_, options_.priority, options_.name, std::move(fd));
    } catch (...) {
      streams_.pop_front();
      throw;
    }
    StreamKeeper::keep(*stream, *this, streams_.begin());
  } catch (std::bad_alloc const&) {
    return pauseFor(ENOMEM);
  } catch (std::system_error const& error) {
    return pauseFor(error.code().value());
  }
  if (!accepts()) updateWatches();
}

void Listener::Core::pauseFor(int error) {
  BRELO_TRACE(trace, 1, "Listener", "{} pauses: {}", options_.name,
              std::generic_category().message(error));
  paused_ = true;
  retry_->scheduleTaskDelay(pauseWithoutMeans);
  updateWatches();
}

void Listener::Core::resume() {
  if (!std::exchange(paused_, false)) return;
  retry_->stopTimerTask();
  updateWatches();
}

void Listener::Core::updateWatches() {
  try {
    for (auto const& each : acceptors_)
      each->taskWatchReadableIs(accepts());
  } catch (std::exception const&) {  // no room for a watch: what is off stays off until then
    paused_ = true;
    retry_->scheduleTaskDelay(pauseWithoutMeans);
  }
}

void Listener::Core::streamBegins(StreamTask& task) {
  auto const held = shared_from_this();
  auto const stream = *task.place();
  onStream_(*stream);
}

void Listener::Core::streamEnded(StreamTask& task) {
  auto const held = shared_from_this();
  std::list<std::shared_ptr<Stream>> ended;
  ended.splice(ended.begin(), streams_, task.place());
  ended.clear();  // which may end the listener
  if (closing_ && streams_.empty()) step_.done();
  resume();
  updateWatches();
}

void Listener::Core::stopAccepting() {
  for (auto const& each : acceptors_)
    each->letGo();
  acceptors_.clear();
  sockets_.clear();
  retry_->stopTimerTask();
  paused_ = false;
}

void Listener::Core::close() {
  auto const held = shared_from_this();
  stopAccepting();
  closing_ = true;
  std::exception_ptr thrown;
  std::vector<std::shared_ptr<Stream>> const all(streams_.begin(), streams_.end());
  for (auto const& stream : all) {
    try {
      if (onStop_) {
        onStop_(*stream);
      } else {
        stream->close();
      }
    } catch (...) {
      if (!thrown) thrown = std::current_exception();
    }
  }
  if (streams_.empty()) step_.done();
  if (thrown) std::rethrow_exception(thrown);
}

void Listener::Core::letGo() {
  stopAccepting();
  onStop_.set(nullptr);
  auto const streams = std::move(streams_);
  streams_.clear();
  for (auto const& stream : streams) {
    StreamKeeper::release(*stream);
    stream->abort();
  }
  step_.done();
}

Listener::Listener(std::shared_ptr<Brelo::TaskScheduler> scheduler, Addresses const& addresses,
                   StreamHandler onStream, ListenerOptions const& options)
    : core_(std::make_shared<Core>(std::move(scheduler), addresses, std::move(onStream), options)) {
}

Listener::~Listener() {
  core_->letGo();
}

std::vector<std::string> const& Listener::addresses() const {
  return core_->addresses();
}

int Listener::port() const {
  return core_->port();
}

std::size_t Listener::connections() const {
  return core_->connections();
}

void Listener::stopAccepting() {
  core_->stopAccepting();
}

void Listener::close() {
  core_->close();
}

void Listener::onStop(StreamHandler stop) {
  core_->onStop(std::move(stop));
}

}  // namespace BreloDaemon
