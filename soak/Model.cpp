#include "Model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Soak {

void differ(std::string const& what) {
  fmt::print(stderr, "brelo_soak: {}, seed {}, after {:.6f} simulated seconds: {}\n", backend, seed,
             simulated, what);
  std::fflush(nullptr);
  std::_Exit(1);  // the library is in the middle of something
}

void Model::begin(Job& job) {
  jobs_[job.name] = &job;
  ++begun;
  ++job.home->jobs;
  if (job.home->first == nullptr) job.home->first = &job;
}

void Model::end(Job& job) {
  stop(job);
  jobs_.erase(job.name);
  --job.home->jobs;
  auto& [tasks, taskRuns] = job.home->ended[job.statsName];
  ++tasks;
  taskRuns += job.runs;
  job.home->keptByEnded[job.level] += job.kept;
}

void Model::enqueue(Job& job, std::uint64_t turn, double order) {
  job.queued = true;
  job.place = {turn, order, &job};
  job.home->queues[job.level].insert(job.place);
  ++job.home->root->waiting;
}

void Model::schedule(Job& job) {
  if (armed_.erase({job.due, &job}) != 0) job.armed = false;
  if (!job.queued && !job.suspended) enqueue(job, ++turn_, 0);
}

void Model::unschedule(Job& job) {
  if (!job.queued) return;
  job.queued = false;
  job.home->queues[job.level].erase(job.place);
  --job.home->root->waiting;
}

void Model::arm(Job& job, double due, double now) {
  stop(job);
  job.armed = true;
  job.due = due;
  job.latest = due;
  for (auto at = armed_.lower_bound({due, nullptr}); at != armed_.end(); ++at) {
    if (at->first > now + twoTicks) break;
    if (at->second->home->root == job.home->root) job.latest = at->first;
  }
  armed_.insert({due, &job});
}

void Model::stop(Job& job) {
  unschedule(job);
  armed_.erase({job.due, &job});
  job.armed = false;
}

void Model::suspend(Job& job, bool on) {
  if (on == job.suspended) return;
  job.suspended = on;
  if (on) return unschedule(job);
  if (!job.armed) schedule(job);
}

void Model::run(Job& job) {
  Home& home = *job.home;
  expect(!job.suspended, "{} ran while suspended", job.name);
  expect(!home.root->suspended, "{} ran while its root was suspended", job.name);
  if (job.predicted) {
    expect(job.queued, "{} ran {}", job.name, job.armed ? "before its time" : "without a request");
    auto const& [turn, due, first] = *home.queues[job.level].begin();
    expect(std::tie(turn, due) == std::tie(std::get<0>(job.place), std::get<1>(job.place)),
           "{} ran although {} came first", job.name, first->name);
    expect(home.root != &home || job.level == 0 || home.queues[0].empty(),
           "{} ran although an absolute task was waiting", job.name);
  }
  unschedule(job);
  ++job.runs;
  ++runs;
}

void Model::reset(Job& job) {
  job.runs = job.kept = 0;
  if (job.home->first == &job) resetTotals(*job.home);
}

void Model::resetTotals(Home& home) {
  home.ended.clear();
  std::fill(std::begin(home.keptByEnded), std::end(home.keptByEnded), 0);
  for (auto const& [name, job] : jobs_) {
    if (job->home.get() == &home) job->kept = job->runs;
  }
}

unsigned Model::kept(Home const& home, unsigned char level) const {
  unsigned sum = home.keptByEnded[level];
  for (auto const& [name, job] : jobs_) {
    if (job->home.get() == &home && job->level == level) sum += job->kept;
  }
  return sum;
}

bool Model::see(double before, double now, double after) {
  bool const skip = now - after > skipped_ + slack;
  if (lastSeen_ != 0) stall_ = std::max(stall_, after - lastSeen_);
  if (skip && lastSeen_ != 0) {
    for (auto const& root : roots)
      expect(root->suspended || root->waiting == 0, "time was skipped with {} tasks of {} waiting",
             root->waiting, root->name);
    double const landed = lastSeen_ + (now - after);  // at that time or later
    for (auto const& [due, job] : armed_) {
      if (due >= landed - slack) break;
      // A stall of the process inside the library adds to the delay that it was working on.
      expect(
          landed - job->latest < slack + 2 * stall_ || job->suspended || job->home->root->suspended,
          "the timer of {} is late: time was skipped to {:.6f} s after its expiry", job->name,
          landed - due);
    }
  }
  skipped_ = now - before;
  lastSeen_ = after;
  return skip;
}

void Model::expire(double now) {
  std::map<Home*, Job const*> pending;  // by root: the first timer that is due and running
  ++turn_;
  for (auto at = armed_.begin(); at != armed_.end() && at->first <= now;) {
    auto const [due, job] = *at;
    Job const*& earlier = pending[job->home->root];
    if (job->timerRunning()) {
      if (earlier == nullptr) earlier = job;
      ++at;
      continue;
    }
    expect(earlier == nullptr || earlier->due == due, "the timer of {} expired before that of {}",
           job->name, earlier == nullptr ? "" : earlier->name);
    at = armed_.erase(at);
    job->armed = false;
    if (!job->suspended) enqueue(*job, turn_, due);
    ++expiries;
  }
}

bool Model::agrees(std::string const& name, std::uint32_t taskRuns, bool queued, bool timer,
                   bool suspended) const {
  auto const found = jobs_.find(name);
  if (found == jobs_.end()) return false;
  Job const& job = *found->second;
  expect(job.runs == taskRuns, "{} has {} runs, reported as {}", name, job.runs, taskRuns);
  expect(!job.predicted || job.queued == queued, "{} is {}queued", name, queued ? "" : "not ");
  expect(job.armed == timer, "the timer of {} is {}running", name, timer ? "" : "not ");
  expect(job.suspended == suspended, "{} is {}suspended", name, suspended ? "" : "not ");
  return true;
}

}  // namespace Soak
