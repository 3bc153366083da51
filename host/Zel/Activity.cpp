#include "Zel/Activity.h"

#include <pthread.h>

#include <cmath>
#include <stdexcept>
#include <utility>

#include "Zel/internal/ActivityLoop.h"
#include "Zel/internal/ClockQueue.h"
#include "Zel/internal/DescriptorSet.h"
#include "Zel/internal/TimerSlack.h"

namespace Zel {
namespace {

void beforeFork();
void inForkedChild();

struct Runtime {
  Runtime() { pthread_atfork(beforeFork, nullptr, inForkedChild); }

  ClockQueue queue;
  DescriptorSet descriptors;
  Ptr<ActivityManagerSm> const sm{new ActivityManagerSm};
  Ptr<ActivityManager> const manager{new ActivityManager(new Clock(queue))};
  Ptr<ActivityManagerConfig> const config{manager};
  ActivityLoop loop{*manager, queue, descriptors, *sm->activityLock()};
};

Runtime& runtime() {
  static Runtime& theOne = *new Runtime;
  return theOne;
}

/// The thread that forks is the one that goes on in the child.
thread_local bool heldWhenForking = false;

void beforeFork() {
  heldWhenForking = runtime().sm->activityLock()->heldByThisThread();
}

void inForkedChild() {
  runtime().sm->activityLock()->forkedIs(heldWhenForking);
  runtime().descriptors.forked();
  TimerSlack::forked();
}

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
