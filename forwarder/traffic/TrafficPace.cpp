// Counts from the start of the rate, so that no rounding adds up.
#include "forwarder/traffic/TrafficPace.h"

#include <algorithm>

namespace Forwarder {
namespace {

using std::chrono::nanoseconds;

constexpr uint64_t nanosecondsInSecond = 1'000'000'000;

uint64_t multiplyDivide(uint64_t a, uint64_t b, uint64_t divisor) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(a) * b / divisor);
}

}  // namespace

void TrafficPace::start(uint64_t rate, Time now) {
  *this = {};
  rate_ = rate;
  countedFrom_ = secondBegan_ = now;
}

uint64_t TrafficPace::due(Time now) const {
  const auto elapsed = static_cast<uint64_t>(nanoseconds(now - countedFrom_).count());
  return multiplyDivide(elapsed, rate_, nanosecondsInSecond) - counted_;
}

uint64_t TrafficPace::skipOverdue(Time now) {
  const uint64_t most = rate_ / 10 + 1;
  const uint64_t skipped = due(now) - std::min(due(now), most);
  counted_ += skipped;
  skippedInSecond_ += skipped;
  return skipped;
}

void TrafficPace::handleSent(uint64_t packets) {
  counted_ += packets;
  sentInSecond_ += packets;
}

bool TrafficPace::maybeMeasure(Time now) {
  const std::chrono::duration<double> elapsed = now - secondBegan_;
  if (elapsed < std::chrono::seconds(1)) return false;
  achieved_ = static_cast<uint64_t>(static_cast<double>(sentInSecond_) / elapsed.count() + 0.5);
  behind_ = skippedInSecond_ > rate_ / 100;
  secondBegan_ = now;
  sentInSecond_ = skippedInSecond_ = 0;
  return true;
}

TrafficPace::Time TrafficPace::nextDue() const {
  const uint64_t some = std::max<uint64_t>(1, rate_ / 1000);
  return countedFrom_ + nanoseconds(multiplyDivide(counted_ + some, nanosecondsInSecond, rate_));
}

}  // namespace Forwarder
