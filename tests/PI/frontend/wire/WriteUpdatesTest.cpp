// Serialized Writes, taken apart.
#include "PI/frontends/proto/write_updates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::Update;
using p4::v1::WriteRequest;

WriteRequest someWrite(int updates) {
  WriteRequest request;
  request.set_device_id(3);
  request.set_role("lab");
  request.mutable_election_id()->set_low(7);
  for (int n = 0; n < updates; ++n) {
    *request.add_updates() =
        test::update(Update::INSERT, test::ipv4(1, 0x0a000000 + (n << 8), 24, 3));
  }
  request.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
  return request;
}

TEST(WriteUpdates, AreThoseOfTheRequest) {
  for (const int count : {0, 1, 300}) {
    const WriteRequest request = someWrite(count);
    const std::string bytes = request.SerializeAsString();
    WriteRequest header;
    const auto updates = WriteUpdates::split(bytes, &header);
    ASSERT_TRUE(updates);
    ASSERT_EQ(updates->count(), count);
    Update room;
    for (int n = 0; n < count; ++n) *header.add_updates() = updates->message(n, &room);
    EXPECT_EQ(header.DebugString(), request.DebugString());
  }
}

TEST(WriteUpdates, ThatAreTooManyAreCountedOnly) {
  const std::string bytes = someWrite(0).SerializeAsString();
  std::string many = bytes;
  for (size_t n = 0; n < WriteUpdates::mostKept + 10; ++n) many += std::string("\x22\x00", 2);
  WriteRequest header;
  const auto updates = WriteUpdates::split(many, &header);
  ASSERT_TRUE(updates);
  EXPECT_EQ(updates->count(), WriteUpdates::mostKept + 10);
}

TEST(WriteUpdates, OfAnUnusualRequestAreLeftToProtocolBuffers) {
  const std::string good = someWrite(1).SerializeAsString();
  WriteRequest header;
  for (const std::string& tail :
       {std::string("\x08\x05", 2), std::string("\x0b\x0c", 2), std::string("\x22\x7f", 2),
        std::string("\x80\x02\x01", 3), std::string("\x08\x80", 2)}) {
    EXPECT_FALSE(WriteUpdates::split(good + tail, &header)) << testing::PrintToString(tail);
  }
  WriteRequest badRole;  // no UTF-8
  EXPECT_FALSE(WriteUpdates::split("\x32\x01\xff", &badRole));
}

class DamagedWrite : public FrontendTest {};

// Found when the update is checked, and nothing of the Write is done.
TEST_F(DamagedWrite, IsRefusedAsAWhole) {
  pipelineIsUp();
  std::string bytes = someWrite(3).SerializeAsString();
  bytes += std::string("\x22\x02\x12\x7f", 4);  // an entity beyond the end of its update
  WriteRequest header;
  const auto updates = WriteUpdates::split(bytes, &header);
  ASSERT_TRUE(updates);
  const Status status = device->write(header, *updates, nullptr, nullptr);
  EXPECT_EQ(status.code(), code::invalidArgument);
  EXPECT_THAT(status.message(), testing::HasSubstr("update 3 is damaged"));
  EXPECT_THAT(target.batches(), testing::IsEmpty());
}

}  // namespace
}  // namespace pi::fe::proto
