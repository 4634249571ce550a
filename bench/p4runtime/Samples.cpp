// See Samples.h.
#include "bench/p4runtime/Samples.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace Bench {

void Samples::add(const Samples& others) {
  roundTrips_.insert(roundTrips_.end(), others.roundTrips_.begin(), others.roundTrips_.end());
}

Duration Samples::total() const {
  return std::accumulate(roundTrips_.begin(), roundTrips_.end(), Duration::zero());
}

double Samples::perSecond(size_t itemsEach) const {
  const double seconds = total().count() / 1e6;
  return seconds > 0 ? static_cast<double>(count() * itemsEach) / seconds : 0;
}

Duration Samples::quantile(double part) const {
  if (roundTrips_.empty()) return Duration::zero();
  std::vector<Duration> sorted = roundTrips_;
  const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(sorted.size())));
  const auto at = sorted.begin() + static_cast<ptrdiff_t>(std::max<size_t>(rank, 1) - 1);
  std::nth_element(sorted.begin(), at, sorted.end());
  return *at;
}

}  // namespace Bench
