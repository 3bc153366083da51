#include "BreloDaemon/StopStep.h"

#include <utility>

#include "BreloDaemon/internal/StopSequence.h"

namespace BreloDaemon {

StopStep::StopStep(std::string name, std::function<void()> refuse, std::function<void()> stop)
    : name_(std::move(name)), refuse_(std::move(refuse)), stop_(std::move(stop)) {
  StopSequence::instance().add(*this);
}

StopStep::~StopStep() {
  done();
}

void StopStep::done() {
  if (!std::exchange(done_, true)) StopSequence::instance().remove(*this);
}

StopSequence& StopSequence::instance() {
  thread_local StopSequence sequence;
  return sequence;
}

void StopSequence::begin(std::function<void()> const& resume) {
  resume_ = &resume;
  refuseAll();
}

// A step that is called may end itself and others, and make new ones, which come before it in the
// list: they are for the next round. What is called is a copy, since it may end with its step;
// where there is no memory for that, the step has not been asked yet.
void StopSequence::refuseAll() {
  for (bool found = true; found;) {
    found = false;
    next_ = newest_;
    while (next_ != nullptr) {
      StopStep& step = *std::exchange(next_, next_->older_);
      if (step.refused_) continue;
      auto const refuse = step.refuse_;
      step.refused_ = found = true;
      if (refuse) refuse();
    }
  }
}

bool StopSequence::goOn() {
  for (;;) {
    refuseAll();
    waitedFor_ = newest_;
    if (newest_ == nullptr) return true;
    StopStep& step = *newest_;
    if (step.stopped_) return false;
    auto const stop = step.stop_;
    step.stopped_ = true;
    auto const* const resume =
        std::exchange(resume_, nullptr);  // what is done at once is seen here
    try {
      if (stop) stop();
    } catch (...) {
      resume_ = resume;
      if (waitedFor_ == &step) step.done();
      throw;
    }
    resume_ = resume;
  }
}

std::vector<std::string> StopSequence::unfinished() const {
  std::vector<std::string> names;
  for (auto const* step = newest_; step != nullptr; step = step->older_)
    names.push_back(step->name_);
  return names;
}

void StopSequence::add(StopStep& step) {
  step.older_ = newest_;
  if (newest_ != nullptr) newest_->newer_ = &step;
  newest_ = &step;
}

void StopSequence::remove(StopStep const& step) {
  if (next_ == &step) next_ = step.older_;
  (step.newer_ != nullptr ? step.newer_->older_ : newest_) = step.older_;
  if (step.older_ != nullptr) step.older_->newer_ = step.newer_;
  if (waitedFor_ != &step) return;
  waitedFor_ = nullptr;
  if (resume_ != nullptr) (*resume_)();
}

}  // namespace BreloDaemon
