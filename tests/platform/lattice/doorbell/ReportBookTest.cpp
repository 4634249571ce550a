// Several subscribers' reports made one.
#include "platform/lattice/doorbell/ReportBook.h"

#include <gtest/gtest.h>

namespace Lattice {
namespace {

constexpr Subscribers first = 1, second = 2;

struct ReportBookTest : testing::Test {
  ReportBook book;
  void SetUp() override {
    const CommittedChange changes[] = {{10, 100}, {11, 101}, {12, 102}};
    book.expect(changes, first | second);
  }
  bool settles(Subscribers who, uint64_t sequence, uint16_t code = 0) {
    return book.settles(who, {sequence + 90, sequence, code, {}});
  }
};

TEST_F(ReportBookTest, SettlesWithTheLastSuccessOrTheFirstFailure) {
  EXPECT_FALSE(settles(first, 10));
  EXPECT_FALSE(settles(first, 10)) << "said twice";
  EXPECT_TRUE(settles(second, 10));
  EXPECT_FALSE(settles(first, 12));
  EXPECT_TRUE(settles(second, 12, 1));
  EXPECT_TRUE(settles(first, 11, 8));
  EXPECT_FALSE(settles(second, 11)) << "it has failed for the other";
  EXPECT_TRUE(book.empty());
}

TEST_F(ReportBookTest, PassesWhatItDoesNotKnow) {
  EXPECT_TRUE(settles(first, 9));
  EXPECT_TRUE(book.settles(first, {555, 10, 0, {}})) << "another handle";
}

TEST_F(ReportBookTest, InStepIsSuccessOnAllBefore) {
  EXPECT_FALSE(settles(first, 11));
  const auto settled = book.release(second, 11);
  ASSERT_EQ(settled.size(), 1u);
  EXPECT_EQ(settled[0].sequence, 11u);
  EXPECT_TRUE(settles(first, 10));
}

TEST_F(ReportBookTest, WhoLeavesIsNotWaitedForButSettlesNothing) {
  EXPECT_FALSE(settles(first, 10));
  const auto settled = book.remove(second);
  ASSERT_EQ(settled.size(), 1u);
  EXPECT_EQ(settled[0].entryHandle, 100u);
  EXPECT_TRUE(settles(first, 11)) << "the last one left";
  EXPECT_TRUE(book.remove(first).empty()) << "nobody has reported on 12";
}

}  // namespace
}  // namespace Lattice
