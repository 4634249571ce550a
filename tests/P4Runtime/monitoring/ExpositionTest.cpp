// The text forms of metrics, to the letter: scrapers are strict.
#include "P4Runtime/monitoring/Exposition.h"

#include <gtest/gtest.h>

#include <limits>

#include "PI/frontends/proto/write_statistics.h"

namespace P4Runtime {
namespace {

std::string example(Exposition::Form form) {
  Exposition exposition(form);
  exposition.counter("calls", "Calls,\nby \\ code.");
  exposition.sample(uint64_t{18446744073709551615u}, {{"code", "OK"}, {"who", "a \"b\"\\\n"}});
  exposition.gauge("ready", "Whether.");
  exposition.sample(0.5);
  exposition.histogram("wait_seconds", "Time.");
  exposition.bucket(0.01, 2, {{"stage", "parse"}});
  exposition.bucket(std::numeric_limits<double>::infinity(), 3, {{"stage", "parse"}});
  exposition.sum(0.125, 3, {{"stage", "parse"}});
  return exposition.finish();
}

TEST(Exposition, HasBothForms) {
  EXPECT_EQ(example(Exposition::Form::openMetrics), R"(# HELP calls Calls,\nby \\ code.
# TYPE calls counter
calls_total{code="OK",who="a \"b\"\\\n"} 18446744073709551615
# HELP ready Whether.
# TYPE ready gauge
ready 0.5
# HELP wait_seconds Time.
# TYPE wait_seconds histogram
# UNIT wait_seconds seconds
wait_seconds_bucket{stage="parse",le="0.01"} 2
wait_seconds_bucket{stage="parse",le="+Inf"} 3
wait_seconds_sum{stage="parse"} 0.125
wait_seconds_count{stage="parse"} 3
# EOF
)");
  EXPECT_EQ(example(Exposition::Form::prometheus), R"(# HELP calls_total Calls,\nby \\ code.
# TYPE calls_total counter
calls_total{code="OK",who="a \"b\"\\\n"} 18446744073709551615
# HELP ready Whether.
# TYPE ready gauge
ready 0.5
# HELP wait_seconds Time.
# TYPE wait_seconds histogram
wait_seconds_bucket{stage="parse",le="0.01"} 2
wait_seconds_bucket{stage="parse",le="+Inf"} 3
wait_seconds_sum{stage="parse"} 0.125
wait_seconds_count{stage="parse"} 3
)");
}

TEST(DurationHistogram, AnEndBelongsToItsBucket) {
  pi::fe::proto::DurationHistogram histogram;
  using std::chrono::nanoseconds;
  for (const int64_t duration : {int64_t{-5}, int64_t{10'000}, int64_t{10'001}, INT64_MAX / 4}) {
    histogram.observe(nanoseconds(duration));
  }
  const auto totals = histogram.totals();
  EXPECT_EQ(totals.counts.front(), 2u);
  EXPECT_EQ(totals.counts[1], 1u);
  EXPECT_EQ(totals.counts.back(), 1u);
  EXPECT_EQ(totals.nanoseconds, uint64_t{20'001} + INT64_MAX / 4);
}

}  // namespace
}  // namespace P4Runtime
