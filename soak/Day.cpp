#include "Day.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Brelo/LibeventFactory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Thread.h"
#include "SavedHistory.h"

namespace Soak {
namespace {

double steady() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The clock of plain timers.
double loopTime() {
  bool const libevent = Brelo::hasThreadLocalSingletons();
  return libevent ? steady() + Brelo::leVirtualTimeOffset() : Brelo::time();
}

std::ptrdiff_t countDescriptors() {
  std::filesystem::directory_iterator const entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

void auditDocument(Model const& model, nlohmann::json const& scheduler) {
  for (auto const& task : scheduler.at("tasks").at("tasks"))
    model.agrees(task.at("name"), task.at("runCount"), task.at("onRunQueue"),
                 task.at("timerRunning"), task.at("suspended"));
  for (auto const& group : scheduler.at("subSchedulers"))
    auditDocument(model, group);
}

}  // namespace

Day::Day(double seconds)
    : seconds_(seconds),
      began_(Brelo::time()),
      startedAt_(steady()),
      control_(Brelo::Platform::getTimerControl(this)) {
  addBranch(Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("main"), nullptr);
  addBranch(Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("side"), nullptr);
  if (!historyFile.empty()) root(0).historyEntryCountIs(200'000);
  root(1).defaultTaskQuantumIs(std::chrono::hours(1));  // so that each reset is one run
  static auto& kept = *new std::vector<std::shared_ptr<Brelo::TaskScheduler>>;
  kept.push_back(branches_[1]->scheduler);
  addActor(1, Kind::plain);
  addActor(0, Kind::stream);
  tickIn(1e-3);
}

Brelo::TaskSchedulerRoot& Day::root(std::size_t index) const {
  return branches_[index]->scheduler->root();
}

void Day::addBranch(std::shared_ptr<Brelo::TaskScheduler> scheduler, Branch* parent) {
  auto const branch = std::make_shared<Branch>();
  branch->name = scheduler->schedulerName();
  branch->scheduler = std::move(scheduler);
  branch->parent = parent;
  branch->root = parent == nullptr ? branch.get() : parent->root;
  if (parent == nullptr) model.roots.push_back(branch);
  if (parent != nullptr) ++parent->groups;
  branches_.push_back(branch);
}

void Day::addActor(std::size_t branch, Kind kind) {
  auto const level = static_cast<unsigned char>(below(2) == 0 ? 2 : below(5));
  actors_.push_back(makeActor(*this, branches_[branch], level, kind));
}

void Day::operate() {
  enum : unsigned { makesGroup, endsGroup, clears, suspends, resets, disturbsAll };
  enum : unsigned { makesActor = 15, endsActor = 25, all = 200 };  // each up to there
  ++operations_;
  std::size_t const at = below(branches_.size());
  unsigned const what = below(all);
  if (what == makesGroup && at != 1 && branches_.size() < 10) {
    Brelo::TaskPriority const priority(static_cast<unsigned char>(below(5)));
    auto const group = Brelo::TaskGroup::TaskGroupIs(fmt::format("group{}", operations_), priority,
                                                     false, branches_[at]->scheduler);
    group->tasksPermittedMultipleRunsIs(below(2) == 0);
    group->taskGroupQuantumIs(std::chrono::microseconds(1 + below(20)));
    addBranch(group, branches_[at].get());
  } else if (what == endsGroup) {
    endGroup(at);
  } else if (what == clears) {
    clearStats(*branches_[at]);
  } else if (what == suspends) {
    suspend(below(2), true);
  } else if (what == resets) {
    root(1).resetStats();
  } else if (what == disturbsAll) {
    for (auto const& actor : actors_)
      actor->disturb();
  } else if (what < makesActor && actors_.size() < 90) {
    addActor(at, static_cast<Kind>(below(at == 1 ? 2 : 3)));
  } else if (what < endsActor && actors_.size() > 60) {
    end(actors_[1 + below(actors_.size() - 1)].get());
  } else {
    actors_[below(actors_.size())]->disturb();
  }
}

void Day::end(Actor const* actor) {
  auto const is = [&](auto const& each) { return each.get() == actor; };
  auto const at = std::find_if(actors_.begin(), actors_.end(), is);
  if (at == actors_.end()) return;
  auto const last = std::move(*at);
  actors_.erase(at);
}

void Day::endGroup(std::size_t index) {
  auto const branch = branches_[index];
  if (branch->parent == nullptr || branch->groups != 0) return;
  for (std::size_t i = actors_.size(); i-- > 0;) {
    if (actors_[i]->job.home == branch) end(actors_[i].get());
  }
  --branch->parent->groups;
  gone_.push_back(branch->scheduler);
  branch->scheduler.reset();
  branches_.erase(branches_.begin() + static_cast<std::ptrdiff_t>(index));
}

void Day::clearStats(Branch& branch) {
  if (branch.groups != 0) return;  // they would reset in the background, and stay for it
  model.resetTotals(branch);       // first, as there; then each task
  branch.scheduler->clearStats();
}

void Day::suspend(std::size_t index, bool on) {
  root(index).suspendedIs(on);
  branches_[index]->suspended = on;
  if (on && index == 0) tickIn(1e-4);  // soon: what is readable keeps the loop from waiting
}

void Day::observe() {
  double const before = steady(), now = Brelo::time(), after = steady();
  simulated = now - began_;
  if (model.see(before, now, after)) {
    for (auto const& actor : actors_)
      actor->skipped();
  }
  model.expire(now);
}

void Day::tickIn(double seconds) {
  tick_ = loopTime() + seconds;
  control_->setTimeout(seconds);
}

void Day::timeout() {
  observe();
  expect(loopTime() >= tick_ - Model::slack, "a plain timer fired early");
  if (ticks_++ == 0) otherDescriptors_ = countDescriptors() - openDescriptors;
  for (auto const& scheduler : gone_)
    expect(scheduler.expired(), "a group outlived its tasks");
  gone_.clear();
  bool const last = simulated >= seconds_;
  if (last || ticks_ % 256 == 0) audit();
  model.notStalled(steady());
  if (last) {
    if (!historyFile.empty()) saveHistory(root(0), historyFile);
    actors_.clear();
    gone_.push_back(branches_[0]->scheduler);
    while (!branches_.empty())
      branches_.pop_back();
    model.roots.clear();
    return;
  }
  suspend(0, false);
  suspend(1, false);
  tickIn(-0.5 * std::log((1 + below(1000)) / 1000.0));
  for (unsigned i = below(4); i > 0; --i)
    operate();
}

bool Day::runnable() const {
  return std::any_of(branches_.begin(), branches_.end(), [](auto const& branch) {
    return !branch->root->suspended && branch->scheduler->schedulerHasRunnableTasks();
  });
}

double Day::untilNext() const {
  return std::max(0.0, std::min(model.firstDue() - Brelo::time(), control_->remainingTimeout()));
}

void Day::audit() const {
  expect(countDescriptors() == otherDescriptors_ + openDescriptors, "descriptors are left over");
  expect(root(0).taskGroupCount() == branches_.size() - 2, "{} groups", root(0).taskGroupCount());
  for (auto const& branch : branches_)
    audit(*branch);
  if (ticks_ % 4096 != 0) return;
  auto const document = nlohmann::json::parse(root(0).statsRenderJsonToString(true, true, true));
  auditDocument(model, document.at("schedulers").at("main"));
}

void Day::audit(Branch const& branch) const {
  unsigned constexpr unordered = Brelo::TaskSchedulerSnapshot::displayOrderUnset;
  auto const snapshot = branch.scheduler->snapshot("", true, true, false, unordered);
  Brelo::TaskSchedulerPriorityStats counted[5];
  unsigned known = 0, knownEnded = 0;
  for (auto const& stat : snapshot->tasks()) {
    auto& level = counted[stat.taskPriority.value()];
    auto const status = stat.taskStatus;
    ++(status.taskOnRunQueue() ? level.runnableTasks : level.idleTasks);
    level.totalRunCount += stat.taskRunCount;
    known += model.agrees(stat.taskName(), stat.taskRunCount, status.taskOnRunQueue(),
                          status.taskTimerRunning(), status.taskSuspended());
  }
  for (auto const& stat : snapshot->completedTasks()) {
    auto& level = counted[stat.taskPriority.value()];
    level.totalRunCount += stat.taskRunCount;
    level.completedTasks += stat.taskCompletedCount;
    auto const found = branch.ended.find(stat.taskName());
    if (found == branch.ended.end()) continue;
    ++knownEnded;
    auto const& [tasks, runs] = found->second;
    expect(stat.taskCompletedCount == tasks && stat.taskRunCount == runs,
           "{} of {} ended with {} runs, reported as {} with {}", tasks, stat.taskName(), runs,
           stat.taskCompletedCount, stat.taskRunCount);
  }
  expect(known == branch.jobs && knownEnded == branch.ended.size(),
         "{} has {} tasks and {} ended kinds, reported are {} and {}", branch.name, branch.jobs,
         branch.ended.size(), known, knownEnded);
  for (auto const& [priority, stats] : snapshot->queueStats()) {
    auto& level = counted[priority.value()];
    level.totalRunCount -= model.kept(branch, priority.value());
    expect(stats.runnableTasks == level.runnableTasks && stats.idleTasks == level.idleTasks &&
               stats.completedTasks == level.completedTasks &&
               stats.totalRunCount == level.totalRunCount,
           "{} at {} reports {} runnable, {} idle, {} completed, {} runs; counted {}, {}, {}, {}",
           branch.name, priority, stats.runnableTasks, stats.idleTasks, stats.completedTasks,
           stats.totalRunCount, level.runnableTasks, level.idleTasks, level.completedTasks,
           level.totalRunCount);
  }
}

std::string Day::report() const {
  expect(over(), "the loop returned before the day was over");
  expect(model.idle(), "tasks are left over");
  expect(gone_.at(0).expired(), "the root is left over");
  expect(countDescriptors() == otherDescriptors_, "descriptors are left over");
  return fmt::format(
      "{}: {:.1f} simulated hours, {} operations, {} timer expiries, {} task runs, {} bytes, "
      "{:.2f} real seconds",
      backend, simulated / 3600, operations_, model.expiries, model.runs, bytes,
      steady() - startedAt_);
}

}  // namespace Soak
