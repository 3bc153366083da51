#include "BreloDaemon/internal/Resolver.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <thread>
#include <utility>

#include "Brelo/Debug.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/internal/AllSignalsBlocked.h"

namespace BreloDaemon {

namespace {

Brelo::ModuleTrace const trace("BreloResolver");

constexpr unsigned threadsMax = 4;

class ResolveCategory final : public std::error_category {
 public:
  char const* name() const noexcept override { return "resolve"; }
  std::string message(int value) const override { return ::gai_strerror(value); }
};

std::error_code codeOf(int result, int systemError) {
  if (result == 0) return {};
  if (result == EAI_SYSTEM) return {systemError, std::generic_category()};
  if (result == EAI_MEMORY) return {ENOMEM, std::generic_category()};
  return {result, resolveCategory()};
}

}  // namespace

std::error_category const& resolveCategory() {
  static ResolveCategory const category;
  return category;
}

/// Belongs to its thread until it is posted.
struct Resolver::Lookup final : Impl::Post {
  void resolve() noexcept {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    result = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
    systemError = errno;
    try {
      for (auto const* each = found; each != nullptr; each = each->ai_next)
        addresses.emplace_back(each->ai_addr, each->ai_addrlen);
    } catch (std::bad_alloc const&) {
      result = EAI_MEMORY;
    }
    if (found != nullptr) ::freeaddrinfo(found);
  }
  void run() override { resolver->finished(*this); }

  Resolver* resolver = nullptr;
  Id id = 0;
  std::string host;
  std::string service;
  std::vector<SocketAddress> addresses;
  int result = 0;
  int systemError = 0;
};

Resolver::Resolver(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                   std::string name)
    : scheduler_(std::move(scheduler)), priority_(priority), name_(std::move(name)) {}

Resolver::~Resolver() = default;

Resolver::Id Resolver::start(std::string host, std::string service, Done done) {
  auto lookup = std::make_unique<Lookup>();
  lookup->resolver = this;
  lookup->id = ++last_;
  lookup->host = std::move(host);
  lookup->service = std::move(service);
  Id const id = lookup->id;
  wanted_.emplace(id, std::move(done));
  try {
    queued_.push_back(std::move(lookup));
    launch();
  } catch (...) {
    cancel(id);
    throw;
  }
  return id;
}

/// As many as may run. Where no thread can be had the others do it.
void Resolver::launch() {
  while (!queued_.empty() && running_ < threadsMax) {
    if (!mailbox_) mailbox_.emplace(scheduler_, priority_, name_);
    auto const lookup = std::make_shared<std::unique_ptr<Lookup>>(std::move(queued_.front()));
    Impl::AllSignalsBlocked const inherited;
    try {
      std::thread([lookup, sender = mailbox_->sender()] {
        (*lookup)->resolve();
        sender.push(std::move(*lookup));
      }).detach();
    } catch (...) {
      queued_.front() = std::move(*lookup);
      if (running_ > 0) return;
      throw;
    }
    queued_.pop_front();
    ++running_;
  }
}

void Resolver::cancel(Id id) {
  wanted_.erase(id);
  queued_.erase(std::remove_if(queued_.begin(), queued_.end(),
                               [id](auto const& each) { return each->id == id; }),
                queued_.end());
  rest();
}

void Resolver::rest() {
  if (!wanted_.empty()) return;
  running_ = 0;
  mailbox_.reset();
}

void Resolver::finished(Lookup& lookup) {
  --running_;
  Done done;
  if (auto const wanted = wanted_.find(lookup.id); wanted != wanted_.end()) {
    done = std::move(wanted->second);
    wanted_.erase(wanted);
  }
  try {
    launch();
  } catch (std::exception const& error) {  // the next start tries again
    BRELO_TRACE(trace, 1, "Resolver", "{} names wait for a thread: {}", queued_.size(),
                error.what());
  }
  rest();
  if (done) done(std::move(lookup.addresses), codeOf(lookup.result, lookup.systemError));
}

}  // namespace BreloDaemon
