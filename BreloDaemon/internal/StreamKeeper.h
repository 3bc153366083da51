#pragma once

#include <list>
#include <memory>

#include "BreloDaemon/internal/StreamTask.h"

namespace BreloDaemon {

/// Ties a stream to who keeps it alive.
class StreamKeeper {
 public:
  using Place = std::list<std::shared_ptr<Stream>>::iterator;

  /// Asks for the first run of the stream, in which the keeper hears of it.
  static void keep(Stream& stream, StreamTask::Keeper& keeper, Place place) {
    stream.task_->keeperIs(&keeper, place);
    stream.task_->scheduleTask();
  }
  static void release(Stream& stream) { stream.task_->keeperIs(nullptr, {}); }
};

}  // namespace BreloDaemon
