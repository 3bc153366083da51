#include "Zel/Activity.h"

#include <pthread.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Zel/internal/ActivityLoop.h"
#include "Zel/internal/ClockQueue.h"
#include "Zel/internal/DescriptorSet.h"
#include "Zel/internal/TimerSlack.h"

namespace Zel {
namespace {

struct Runtime {
  ClockQueue queue;
  DescriptorSet descriptors;
  Ptr<ActivityManagerSm> const sm{new ActivityManagerSm};
  Ptr<ActivityManager> const manager{new ActivityManager(new Clock(queue))};
  Ptr<ActivityManagerConfig> const config{manager};
  ActivityLoop loop{*manager, queue, descriptors, *sm->activityLock()};
};

std::atomic<Runtime*> theOne{nullptr};  // made on first use, and never destroyed

/// Without a lock: the child of a fork amid this would wait for a thread that it does not have. Who
/// comes second lets go of its own.
Runtime& makeRuntime() {
  auto made = std::make_unique<Runtime>();
  Runtime* first = nullptr;
  return theOne.compare_exchange_strong(first, made.get()) ? *made.release() : *first;
}

Runtime& runtime() {
  Runtime* const made = theOne.load(std::memory_order_acquire);
  return made != nullptr ? *made : makeRuntime();
}

/// The thread that forks is the one that goes on in the child.
thread_local bool heldWhenForking = false;

void beforeFork() {
  Runtime* const made = theOne.load(std::memory_order_acquire);
  heldWhenForking = made != nullptr && made->sm->activityLock()->heldByThisThread();
}

void inForkedChild() {
  Runtime* const made = theOne.load(std::memory_order_acquire);
  if (made == nullptr) return;
  made->sm->activityLock()->forkedIs(heldWhenForking);
  made->descriptors.forked();
  TimerSlack::forked();
}

[[maybe_unused]] int const forkHandled = pthread_atfork(beforeFork, nullptr, inForkedChild);

}  // namespace

ActivityManagerConfig::ActivityManagerConfig(Ptr<Clock> clock) : clock_(std::move(clock)) {}

ActivityManagerConfig::~ActivityManagerConfig() = default;

void ActivityManagerConfig::executionTimeIs(double const& seconds) {
  if (std::isnan(seconds)) throw std::invalid_argument("the execution time is not a number");
  executionTime_ = seconds;
}

std::optional<double> ActivityManagerConfig::takeExecutionTime() {
  return std::exchange(executionTime_, std::nullopt);
}

ActivityManager::ActivityManager(Ptr<Clock> clock) : ActivityManagerConfig(std::move(clock)) {}

ActivityManager::~ActivityManager() = default;

ActivityManagerSm::~ActivityManagerSm() = default;

Ptr<ActivityManager> const& activityManager() {
  return runtime().manager;
}

Ptr<ActivityManagerConfig> const& ActivityFacility::activityManagerConfig() {
  return runtime().config;
}

Ptr<ActivityManagerSm> const& ActivityImplFacility::activityManagerSm() {
  return runtime().sm;
}

ActivityLoop& activityLoop() {
  return runtime().loop;
}

DescriptorSet& descriptorSet() {
  return runtime().descriptors;
}

}  // namespace Zel
