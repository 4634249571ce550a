#include "p4/externs/Meter.h"

#include <algorithm>

namespace P4 {

void Meter::Bucket::refill(uint64_t now, uint64_t rate, uint64_t burst) {
  auto due = static_cast<uint64_t>(static_cast<unsigned __int128>(now) * rate / 1000000);
  due = std::max(due, last);  // should the clock go back
  const auto full = static_cast<unsigned __int128>(tokens) + (due - last);
  tokens = static_cast<uint64_t>(std::min<unsigned __int128>(full, burst));
  last = due;
}

Colour Meter::execute(int side, uint64_t now, uint64_t units) {
  const MeterConfig* config = wanted_[side];
  if (!config) return Colour::green;
  const MeterRates& rates = config->rates;
  if (config->generation != current_) {
    current_ = config->generation;
    committed_ = {rates.committedBurst, 0};
    peak_ = {rates.peakBurst, 0};
  }
  peak_.refill(now, rates.peakRate, rates.peakBurst);
  if (peak_.tokens < units) return Colour::red;
  peak_.tokens -= units;
  committed_.refill(now, rates.committedRate, rates.committedBurst);
  if (committed_.tokens < units) return Colour::yellow;
  committed_.tokens -= units;
  return Colour::green;
}

}  // namespace P4
