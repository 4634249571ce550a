#include "PI/server/OutgoingQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::server {
namespace {

using testing::ElementsAre;

OutgoingQueue::Total total{0};

OutgoingQueue::Message named(const std::string& name) {
  auto message = std::make_shared<p4::v1::StreamMessageResponse>();
  message->mutable_packet()->set_payload(name);
  return message;
}

std::vector<std::string> drained(OutgoingQueue& queue) {
  queue.close();
  std::vector<std::string> names;
  while (const auto message = queue.next().message) names.push_back(message->packet().payload());
  return names;
}

TEST(OutgoingQueue, NoticesOvertakePacketsAndKeepTheirOrder) {
  OutgoingQueue queue(total);
  queue.packetIs(named("packet 1"), 1);
  queue.noticeIs(named("notice 1"), 8);
  queue.packetIs(named("packet 2"), 1);
  queue.noticeIs(named("notice 2"), 8);
  EXPECT_THAT(drained(queue), ElementsAre("notice 1", "notice 2", "packet 1", "packet 2"));
}

constexpr size_t kOverhead = OutgoingQueue::kOverhead;

TEST(OutgoingQueue, DropsPacketsWhenFullByCountOrBytesUntilThereIsRoom) {
  OutgoingQueue queue(
      total, {.notices = {2, 100}, .packets = {2, 100 + 2 * kOverhead}, .reports = {1, 10}});
  EXPECT_TRUE(queue.packetIs(named("a"), 60));
  EXPECT_FALSE(queue.packetIs(named("too many bytes"), 41));
  EXPECT_FALSE(queue.packetIs(named("too big for any queue"), ~size_t{0}));
  EXPECT_TRUE(queue.packetIs(named("b"), 40));
  EXPECT_FALSE(queue.packetIs(named("too many"), 0));
  queue.next();
  EXPECT_TRUE(queue.packetIs(named("c"), 60));
  queue.noticeIs(named("notice"), 8);
  EXPECT_THAT(drained(queue), ElementsAre("notice", "b", "c"));
}

TEST(OutgoingQueue, ReportsNeverTakeTheRoomOfPackets) {
  OutgoingQueue queue(total, {.packets = {1, 10 + kOverhead}, .reports = {2, 10 + 2 * kOverhead}});
  EXPECT_TRUE(queue.takesReport(10));
  EXPECT_TRUE(queue.reportIs(named("report"), 5));
  EXPECT_TRUE(queue.packetIs(named("packet"), 10));
  EXPECT_FALSE(queue.takesReport(6));
  EXPECT_FALSE(queue.reportIs(named("too many bytes"), 6));
  EXPECT_TRUE(queue.reportIs(named("last"), 5));
  EXPECT_FALSE(queue.takesReport(0));
  EXPECT_THAT(drained(queue), ElementsAre("report", "packet", "last"));
}

// Slow controllers of many roles must not take the memory of all, nor shut the others out.
TEST(OutgoingQueue, AllTogetherAreBoundedAndEachHasRoomOfItsOwn) {
  const OutgoingQueue::Limits limits{.total = 10 * kOverhead, .own = 2 * kOverhead};
  OutgoingQueue::Total all{0};
  OutgoingQueue other(all, limits);
  {
    OutgoingQueue slow(all, limits);
    while (slow.packetIs(named("slow"), 0)) {
    }
    EXPECT_EQ(all, 10 * kOverhead);
    EXPECT_TRUE(other.packetIs(named("a"), 0));
    EXPECT_TRUE(other.packetIs(named("b"), 0));
    EXPECT_FALSE(other.packetIs(named("beyond its own"), 0));
    slow.next();
    slow.next();
    slow.next();
    EXPECT_TRUE(other.packetIs(named("c"), 0));
  }
  EXPECT_EQ(all, 3 * kOverhead);
  EXPECT_THAT(drained(other), ElementsAre("a", "b", "c"));
}

// A message written while more wait need not be sent at once; the last one must.
TEST(OutgoingQueue, SaysWhetherMoreWaits) {
  OutgoingQueue queue(total);
  queue.packetIs(named("a"), 1);
  queue.noticeIs(named("notice"), 8);
  EXPECT_TRUE(queue.next().more);
  EXPECT_FALSE(queue.next().more);
}

TEST(OutgoingQueue, NeverLosesTheNewestNotice) {
  OutgoingQueue queue(total, {.notices = {3, 1000}});
  for (int i = 0; i < 10; ++i) queue.noticeIs(named(std::to_string(i)), 8);
  const auto left = drained(queue);
  EXPECT_LE(left.size(), 3u);
  EXPECT_EQ(left.back(), "9");
}

TEST(OutgoingQueue, NoticesAreBoundedInBytes) {
  OutgoingQueue queue(total, {.notices = {64, 1000}});
  for (int i = 0; i < 10; ++i) queue.noticeIs(named(std::to_string(i)), 400);
  EXPECT_EQ(drained(queue), (std::vector<std::string>{"8", "9"}));
  queue.noticeIs(named("long"), 5000);
  EXPECT_EQ(drained(queue), std::vector<std::string>{"long"});
}

TEST(OutgoingQueue, TakesNoPacketsOnceClosed) {
  OutgoingQueue queue(total);
  queue.close();
  EXPECT_FALSE(queue.packetIs(named("late"), 1));
  EXPECT_EQ(queue.next().message, nullptr);
}

}  // namespace
}  // namespace pi::server
