#include <algorithm>

#include "PI/frontends/proto/write_statistics.h"

namespace pi::fe::proto {

namespace {

constexpr int kUnknown = 2;

size_t placeOf(int code) {
  return static_cast<size_t>(code >= 0 && code < static_cast<int>(kStatusCodes) ? code : kUnknown);
}

}  // namespace

void DurationHistogram::observe(std::chrono::nanoseconds duration) {
  const auto nanoseconds = static_cast<uint64_t>(std::max<int64_t>(duration.count(), 0));
  const auto bucket = std::ranges::lower_bound(kEnds, nanoseconds) - kEnds.begin();
  counts_[static_cast<size_t>(bucket)].fetch_add(1, std::memory_order_relaxed);
  nanoseconds_.fetch_add(nanoseconds, std::memory_order_relaxed);
}

DurationHistogram::Totals DurationHistogram::totals() const {
  Totals totals;
  for (size_t i = 0; i < counts_.size(); ++i) {
    totals.counts[i] = counts_[i].load(std::memory_order_relaxed);
  }
  totals.nanoseconds = nanoseconds_.load(std::memory_order_relaxed);
  return totals;
}

void WriteStatistics::countUpdates(int code, uint64_t count) {
  updates[placeOf(code)].fetch_add(count, std::memory_order_relaxed);
}

void WriteStatistics::countWrite(int code) {
  writes[placeOf(code)].fetch_add(1, std::memory_order_relaxed);
}

WriteStatistics& writeStatistics() {
  static auto* const statistics = new WriteStatistics;  // threads may outlive static destruction
  return *statistics;
}

}  // namespace pi::fe::proto
