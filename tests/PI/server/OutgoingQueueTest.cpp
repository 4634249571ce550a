#include "PI/server/OutgoingQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::server {
namespace {

using testing::ElementsAre;

OutgoingQueue::Message named(const std::string& name) {
  auto message = std::make_shared<p4::v1::StreamMessageResponse>();
  message->mutable_packet()->set_payload(name);
  return message;
}

std::vector<std::string> drained(OutgoingQueue& queue) {
  queue.close();
  std::vector<std::string> names;
  while (const auto message = queue.next()) names.push_back(message->packet().payload());
  return names;
}

TEST(OutgoingQueue, NoticesOvertakePacketsAndKeepTheirOrder) {
  OutgoingQueue queue;
  queue.messageIs(named("packet 1"), 1);
  queue.noticeIs(named("notice 1"));
  queue.messageIs(named("packet 2"), 1);
  queue.noticeIs(named("notice 2"));
  EXPECT_THAT(drained(queue), ElementsAre("notice 1", "notice 2", "packet 1", "packet 2"));
}

TEST(OutgoingQueue, DropsPacketsWhenFullByCountOrBytesUntilThereIsRoom) {
  OutgoingQueue queue({.notices = 2, .messages = 2, .bytes = 100});
  EXPECT_TRUE(queue.messageIs(named("a"), 60));
  EXPECT_FALSE(queue.messageIs(named("too many bytes"), 41));
  EXPECT_FALSE(queue.messageIs(named("too big for any queue"), ~size_t{0}));
  EXPECT_TRUE(queue.messageIs(named("b"), 40));
  EXPECT_FALSE(queue.messageIs(named("too many"), 0));
  queue.next();
  EXPECT_TRUE(queue.messageIs(named("c"), 60));
  queue.noticeIs(named("notice"));
  EXPECT_THAT(drained(queue), ElementsAre("notice", "b", "c"));
}

TEST(OutgoingQueue, NeverLosesTheNewestNotice) {
  OutgoingQueue queue({.notices = 3, .messages = 1, .bytes = 100});
  for (int i = 0; i < 10; ++i) queue.noticeIs(named(std::to_string(i)));
  const auto left = drained(queue);
  EXPECT_LE(left.size(), 3u);
  EXPECT_EQ(left.back(), "9");
}

TEST(OutgoingQueue, TakesNoPacketsOnceClosed) {
  OutgoingQueue queue;
  queue.close();
  EXPECT_FALSE(queue.messageIs(named("late"), 1));
  EXPECT_EQ(queue.next(), nullptr);
}

}  // namespace
}  // namespace pi::server
