// Field conversions that end in an assertion, and constant entries as text.
#include <gtest/gtest.h>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

struct Slot {
  uint8_t width;
  bool prefix = false;
};

class FieldConversion : public testing::Test {
 protected:
  void extract(const std::vector<Slot>& slots) {
    const ResourceId table{tableResource, 1};
    FieldBitwidths widths(table);
    for (uint32_t i = 0; i < slots.size(); ++i) {
      widths.fieldBitwidthIs(i, slots[i].width);
      if (slots[i].prefix) widths.fieldIsIpPrefixIs(i, true);
    }
    info_.fieldBitwidthsIs(table, widths);
    std::vector<uint8_t> data(64);
    const uint8_t* fields[64] = {};
    uint32_t count = 0;
    info_.extractFields(table, widths.slots(), data.data(), count, fields);
  }

  P4TableInfo info_{"info", "parent"};
};

TEST_F(FieldConversion, NewRowMakesRoomForEightPrefixes) {
  std::vector<Slot> prefixes;
  for (int i = 0; i < 8; ++i) prefixes.insert(prefixes.end(), {{32, true}, {32}});
  info_.onNewRowStarted();
  extract(prefixes);
  info_.onNewRowStarted();
  extract(prefixes);
  EXPECT_DEATH(extract({{32, true}, {32}}), "prefixIndex_ < MaxPrefixes.*prefixIndex 8");
}

// No pipeline brings these: its check refuses such tables.
TEST_F(FieldConversion, AbortsOnWhatTheCheckRefuses) {
  const struct {
    const char* what;
    std::vector<Slot> slots;
    const char* death;
  } cases[] = {
      {"3 bytes", {{24}}, "Size 3 bytes\\?"},
      {"17 bits", {{17}}, "Size 3 bytes\\?"},
      {"an LPM field of 48 bits", {{48, true}, {32}}, "addrBitWidth 48"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    info_.onNewRowStarted();
    EXPECT_DEATH(extract(c.slots), c.death);
  }
}

TEST(P4TableInfoConstEntry, ComesBackFromItsText) {
  const P4TableInfoConstEntry entry{"0a0B", 16777217, "", 5};
  const std::string text = toText(entry);
  EXPECT_EQ(text,
            "Value('P4Runtime::P4TableInfoConstEntry', ** {'key': 0a0B, 'actionId': 16777217, "
            "'actionParams': , 'priority': 5})");
  EXPECT_EQ(P4TableInfoConstEntry::fromText(text), entry);
  for (const std::string& wrong :
       {std::string(), text + " ", TestSupport::replaced(text, "0a0B", "0g"),
        TestSupport::replaced(text, "16777217", "4294967296"),
        TestSupport::replaced(text, "16777217", "99999999999999999999")}) {
    EXPECT_FALSE(P4TableInfoConstEntry::fromText(wrong)) << wrong;
  }
}

}  // namespace
}  // namespace P4Runtime
