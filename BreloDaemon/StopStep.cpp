#include "BreloDaemon/StopStep.h"

#include <utility>

#include "BreloDaemon/internal/StopSequence.h"

namespace BreloDaemon {

StopStep::StopStep(std::string name, std::function<void()> refuse, std::function<void()> stop)
    : name_(std::move(name)), refuse_(std::move(refuse)), stop_(std::move(stop)) {
  StopSequence::instance().add(this);
}

StopStep::~StopStep() {
  done();
  StopSequence::instance().remove(this);
}

void StopStep::done() {
  if (std::exchange(done_, true)) return;
  StopSequence::instance().done(*this);
}

StopSequence& StopSequence::instance() {
  thread_local StopSequence sequence;
  return sequence;
}

void StopSequence::begin(std::function<void()> const& resume) {
  resume_ = &resume;
  refuseAll();
}

void StopSequence::refuseAll() {
  StopStep* step = newest_;
  while (step != nullptr) {
    if (std::exchange(step->refused_, true)) {
      step = step->older_;
      continue;
    }
    auto const refuse = step->refuse_;  // which may destroy the step, and others
    if (refuse) refuse();
    step = newest_;
  }
}

bool StopSequence::goOn() {
  for (;;) {
    refuseAll();  // steps that were made meanwhile
    StopStep* step = newest_;
    while (step != nullptr && step->done_)
      step = step->older_;
    if (step == nullptr) return true;
    waitedFor_ = step;
    if (std::exchange(step->stopped_, true)) return false;
    auto const stop = step->stop_;
    auto const* const resume =
        std::exchange(resume_, nullptr);  // what is done at once is seen here
    try {
      if (stop) stop();
    } catch (...) {
      resume_ = resume;
      if (waitedFor_ == step) step->done_ = true;
      throw;
    }
    resume_ = resume;
  }
}

std::vector<std::string> StopSequence::unfinished() const {
  std::vector<std::string> names;
  for (auto const* step = newest_; step != nullptr; step = step->older_)
    if (!step->done_) names.push_back(step->name_);
  return names;
}

void StopSequence::add(StopStep* step) {
  step->older_ = newest_;
  if (newest_ != nullptr) newest_->newer_ = step;
  newest_ = step;
}

void StopSequence::remove(StopStep* step) {
  (step->newer_ != nullptr ? step->newer_->older_ : newest_) = step->older_;
  if (step->older_ != nullptr) step->older_->newer_ = step->newer_;
  if (waitedFor_ == step) waitedFor_ = nullptr;
}

void StopSequence::done(StopStep const& step) {
  if (waitedFor_ != &step) return;
  waitedFor_ = nullptr;
  if (resume_ != nullptr) (*resume_)();
}

}  // namespace BreloDaemon
