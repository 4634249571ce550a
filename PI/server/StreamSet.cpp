#include "PI/server/StreamSet.h"

#include "PI/server/ControllerStream.h"

namespace pi::server {

void StreamSet::streamIs(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  streams_.insert(&stream);
  if (ending_) stream.cancel();
}

void StreamSet::streamDel(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  streams_.erase(&stream);
  changed_.notify_all();
}

void StreamSet::endAll(std::chrono::milliseconds grace) {
  std::unique_lock lock(mutex_);
  ending_ = true;
  for (ControllerStream* stream : streams_) stream->finish();
  const auto none = [this] { return streams_.empty(); };
  if (changed_.wait_for(lock, grace, none)) return;
  for (ControllerStream* stream : streams_) stream->cancel();
  changed_.wait(lock, none);
}

}  // namespace pi::server
