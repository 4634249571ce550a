// The PI bytes of entries: one golden record a match kind, and a round trip of many.
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <random>

#include "PI/frontend/check/UpdateCheck.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/KeyCodec.h"
#include "tests/PI/frontend/support/TestPipeline.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using namespace std::string_literals;

class CodecTest : public testing::Test {
 protected:
  CheckedUpdate checked(const TableEntry& entry) const {
    return checkedUpdate(index, test::update(p4::v1::Update::INSERT, entry));
  }
  TableEntry decoded(const CheckedUpdate& update) const {
    const Entry& entry = *update.slot.entry;
    TableEntry result = test::query(entry.tableId);
    decodeKey(*update.table, entry.keyData(), &result);
    result.set_priority(static_cast<int32_t>(entry.priority));
    decodeAction(*index.action(entry.actionId), entry.actionData(),
                 result.mutable_action()->mutable_action());
    return result;
  }

  const P4InfoIndex index{test::pipelineConfig().p4info()};
};

TEST_F(CodecTest, BytesAreThoseThatTargetsExpect) {
  const struct {
    const char* what;
    TableEntry entry;
    std::string key;
    std::string action;
    const char* text;
  } cases[] = {
      {"exact and LPM", test::ipv4(0x123, 0x0a010000, 16, 0x1ff),
       "\x01\x23\x0a\x01\x00\x00\x10\x00\x00\x00"s, "\x01\xff\x0a\x0b\x0c\x0d\x0e\x0f"s,
       "table ingress.ipv4: vrf 0x0123, dst 10.1.0.0/16"},
      {"ternary, one field left out", test::acl(0x0a000000, 0xff000000, 5),
       "\x0a\x00\x00\x00\xff\x00\x00\x00\x00\x00\x00\x00"s, "",
       "table ingress.acl: src 0x0a000000&0xff000000, priority 5"},
      {"no parameters", test::exact(test::kCounted, 7), "\x00\x07"s, "",
       "table ingress.counted: key 0x07"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CheckedUpdate update = checked(c.entry);
    const Entry& entry = *update.slot.entry;
    EXPECT_EQ(entry.key().bytes, c.key);
    EXPECT_EQ(std::string(entry.actionData(), entry.actionData() + entry.actionSize()), c.action);
    EXPECT_EQ(keyText(*update.table, entry.keyData(), entry.priority), c.text);
  }
}

TEST_F(CodecTest, WhatWasWrittenReadsBackEqual) {
  constexpr uint32_t kSeed = 20261121;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  for (int i = 0; i < 2000; ++i) {
    const int length = static_cast<int>(random() % 33);
    const uint32_t bits = length == 0 ? 0 : ~uint32_t{0} << (32 - length);
    const uint32_t mask = random() | 1;
    for (const TableEntry& entry :
         {test::ipv4(random() % 4096, random() & bits, length, random() % 512),
          test::acl(random() & mask, mask, 1 + static_cast<int>(random() % 1000)),
          test::exact(test::kCounted, random() % 65536)}) {
      const TableEntry back = decoded(checked(entry));
      ASSERT_TRUE(google::protobuf::util::MessageDifferencer::Equals(back, entry))
          << entry.ShortDebugString() << "\ncame back as\n"
          << back.ShortDebugString();
    }
  }
}

}  // namespace
}  // namespace pi::fe::proto
