#include "PI/server/ConnectionPace.h"

#include <algorithm>

namespace pi::server {

ConnectionPace::Left ConnectionPace::refilled(Left left, const Rate& rate, Clock::time_point now) {
  const std::chrono::duration<double> passed = now - left.at;
  left.connections = std::min(rate.atOnce, left.connections + passed.count() * rate.perSecond);
  left.at = now;
  return left;
}

ConnectionPace::Left& ConnectionPace::of(const Machine& machine, Clock::time_point now) {
  if (machines_.size() >= kMostMachines && !machines_.contains(machine)) {
    std::erase_if(machines_, [&](const auto& one) {
      return refilled(one.second, ofMachine_, now).connections >= ofMachine_.atOnce;
    });
  }
  Machine key = machine;
  if (machines_.size() >= kMostMachines && !machines_.contains(machine)) key.fill(0xff);
  return machines_.try_emplace(key, Left{ofMachine_.atOnce, now}).first->second;
}

bool ConnectionPace::take(const Machine& machine, Clock::time_point now) {
  Left& own = of(machine, now);
  own = refilled(own, ofMachine_, now);
  all_ = refilled(all_, ofAll_, now);
  if (own.connections < 1 || all_.connections < 1) return false;
  --own.connections;
  --all_.connections;
  return true;
}

}  // namespace pi::server
