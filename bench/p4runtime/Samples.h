// Round trips of one kind of request, and their figures.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;
using Duration = std::chrono::duration<double, std::micro>;

class Samples {
 public:
  void add(Clock::duration roundTrip) { roundTrips_.push_back(Duration(roundTrip)); }
  void add(const Samples& others);
  size_t count() const { return roundTrips_.size(); }
  Duration total() const;
  // Of the round trips, by rank; zero without round trips.
  Duration median() const { return quantile(0.5); }
  Duration p99() const { return quantile(0.99); }
  Duration longest() const { return quantile(1); }
  double perSecond(size_t itemsEach) const;  // items, over all round trips

 private:
  Duration quantile(double part) const;
  std::vector<Duration> roundTrips_;
};

}  // namespace Bench
