#include "PI/server/StreamDeadlines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pi::server {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Stream {};
using Deadlines = StreamDeadlines<Stream>;

TEST(StreamDeadlines, AStreamArbitratesOrEndsOrIsCancelled) {
  const Deadlines::Time opened{};
  const auto at = [opened](int seconds) { return opened + std::chrono::seconds(seconds); };
  Deadlines deadlines;
  Stream silent, settled, gone;
  EXPECT_EQ(deadlines.next(), std::nullopt);
  deadlines.openedIs(gone, at(9));
  deadlines.openedIs(silent, at(10));
  deadlines.openedIs(settled, at(10));
  EXPECT_EQ(deadlines.first(), &gone);
  EXPECT_EQ(deadlines.next(), at(9));
  deadlines.streamDel(gone);
  deadlines.arbitratedIs(settled);
  EXPECT_EQ(deadlines.toArbitrate(), 1u);
  EXPECT_THAT(deadlines.takeUnarbitrated(at(9)), IsEmpty());
  EXPECT_THAT(deadlines.takeUnarbitrated(at(10)), ElementsAre(&silent));

  deadlines.endingIs(silent, at(12));
  deadlines.endingIs(settled, at(11));
  EXPECT_EQ(deadlines.next(), at(11));
  EXPECT_THAT(deadlines.takeLingering(at(11)), ElementsAre(&settled));
  deadlines.streamDel(silent);
  EXPECT_THAT(deadlines.takeLingering(at(99)), IsEmpty());
  EXPECT_THAT(deadlines.takeUnarbitrated(at(99)), IsEmpty());
}

}  // namespace
}  // namespace pi::server
