#include "PI/server/StreamSet.h"

#include "PI/server/ControllerStream.h"
#include "PI/server/Thread.h"

namespace pi::server {

namespace {

using Clock = std::chrono::steady_clock;

// The time that a stream told to end has for its last messages.
constexpr std::chrono::milliseconds kLastMessages{500};

}  // namespace

StreamSet::StreamSet() : watcher_(startThread([this] { watch(); })) {}

StreamSet::~StreamSet() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  watcher_.join();
}

void StreamSet::streamIs(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  if (deadlines_.toArbitrate() >= kMaxUnarbitrated) {
    end(*deadlines_.first(), "another stream took the place of this one, which is in no role yet");
  }
  streams_.insert(&stream);
  deadlines_.openedIs(stream, Clock::now() + limits().arbitrateWithin);
  if (ending_) stream.cancel();
  changed_.notify_all();
}

void StreamSet::streamDel(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  streams_.erase(&stream);
  deadlines_.streamDel(stream);
  changed_.notify_all();
}

void StreamSet::arbitratedIs(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  deadlines_.arbitratedIs(stream);
}

void StreamSet::endingIs(ControllerStream& stream) {
  const std::lock_guard lock(mutex_);
  if (!streams_.count(&stream)) return;
  deadlines_.endingIs(stream, Clock::now() + kLastMessages);
  changed_.notify_all();
}

void StreamSet::end(ControllerStream& stream, const std::string& reason) {
  stream.endWith(grpc::StatusCode::DEADLINE_EXCEEDED, reason);
  deadlines_.endingIs(stream, Clock::now() + kLastMessages);
}

void StreamSet::endRefused(const std::function<grpc::Status(ControllerStream&)>& judge) {
  const std::lock_guard lock(mutex_);
  for (ControllerStream* stream : streams_) {
    const grpc::Status judged = judge(*stream);
    if (judged.ok()) continue;
    stream->endWith(judged.error_code(), judged.error_message());
    deadlines_.endingIs(*stream, Clock::now() + kLastMessages);
  }
  changed_.notify_all();
}

void StreamSet::handlePolicy() {
  endRefused([](ControllerStream& stream) {
    const grpc::Status placed = stream.requireItsPlace();
    if (placed.ok()) return placed;
    return grpc::Status(placed.error_code(), placed.error_message() + " any more");
  });
}

void StreamSet::handleRevocations(const Revocations& revocations) {
  endRefused([&](ControllerStream& stream) { return stream.requireItsCertificate(revocations); });
}

void StreamSet::watch() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    const std::string reason = "no arbitration update within " +
                               std::to_string(limits().arbitrateWithin.count()) +
                               " ms; send one first";
    for (ControllerStream* stream : deadlines_.takeUnarbitrated(Clock::now())) end(*stream, reason);
    for (ControllerStream* stream : deadlines_.takeLingering(Clock::now())) stream->cancel();
    const auto next = deadlines_.next();
    if (next) {
      changed_.wait_until(lock, *next);
    } else {
      changed_.wait(lock);
    }
  }
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
