// From PI bytes to the fields of a row.
#include <gtest/gtest.h>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

using TestSupport::bytes;
using TestSupport::prefix;

constexpr ResourceId table{tableResource, 1};
constexpr ResourceId action{actionResource, 1};

struct Slot {
  uint8_t width;
  bool networkOrder = false;
  bool prefix = false;
};

class FieldConversion : public testing::Test {
 protected:
  void slotsAre(const std::vector<Slot>& slots, ResourceId rid = table) {
    FieldBitwidths widths(rid);
    for (uint32_t i = 0; i < slots.size(); ++i) {
      widths.fieldBitwidthIs(i, slots[i].width);
      if (slots[i].networkOrder) widths.fieldInNetworkByteOrderIs(i, true);
      if (slots[i].prefix) widths.fieldIsIpPrefixIs(i, true);
    }
    info_.fieldBitwidthsIs(rid, widths);
  }
  // The fields' pointers; `data` is changed in place.
  std::vector<const uint8_t*> extracted(std::string& data, ResourceId rid = table) {
    const uint8_t* fields[64] = {};
    uint32_t count = 2;  // behind what a row has already
    info_.extractFields(rid, info_.fieldBitwidths(rid).slots(),
                        reinterpret_cast<uint8_t*>(data.data()), count, fields);
    return {fields + 2, fields + count};
  }
  void extractPrefixes(int number) {
    std::vector<Slot> slots;
    std::string data;
    for (int i = 0; i < number; ++i) {
      slots.insert(slots.end(), {{32, true, true}, {32, true}});
      data += prefix("0a000000", 8);
    }
    slotsAre(slots);
    extracted(data);
  }

  P4TableInfo info_{"info", "parent"};
};

TEST_F(FieldConversion, PutsHostOrderFieldsInOrder) {
  const struct {
    const char* what;
    Slot slot;
    const char* in;
    const char* out;
  } cases[] = {
      {"1 bit", {1}, "01", "01"},
      {"8 bits", {8}, "ab", "ab"},
      {"9 bits", {9}, "0102", "0201"},
      {"16 bits", {16}, "0102", "0201"},
      {"16 bits in network order", {16, true}, "0102", "0102"},
      {"24 bits in network order", {24, true}, "010203", "010203"},
      {"25 bits", {25}, "01020304", "04030201"},
      {"32 bits", {32}, "01020304", "04030201"},
      {"32 bits in network order", {32, true}, "01020304", "01020304"},
      {"48 bits", {48}, "010203040506", "010203040506"},
      {"128 bits", {128}, "000102030405060708090a0b0c0d0e0f", "000102030405060708090a0b0c0d0e0f"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    slotsAre({{8}, c.slot, {8}});
    std::string data = "\x77" + bytes(c.in) + "\x66";
    const auto fields = extracted(data);
    ASSERT_EQ(fields.size(), 3u);
    EXPECT_EQ(data, "\x77" + bytes(c.out) + "\x66");
    EXPECT_EQ(fields[1], fields[0] + 1);
    EXPECT_EQ(*fields[2], 0x66);
  }
}

TEST_F(FieldConversion, PrefixIsOneFieldOfTwoSlots) {
  slotsAre({{32, true, true}, {32, true}, {128, true, true}, {32, true}, {8}});
  info_.onNewRowStarted();
  std::string data =
      prefix("0a010203", 24) + prefix("20010db8 00000000 00000000 00000001", 64) + bytes("07");
  const auto fields = extracted(data);
  ASSERT_EQ(fields.size(), 3u);
  const auto& v4 = *reinterpret_cast<const Lattice::IpGenPrefix*>(fields[0]);
  EXPECT_EQ(v4.family, Lattice::IpGenPrefix::ipv4);
  EXPECT_EQ(v4.length, 24);
  EXPECT_EQ(std::string(v4.address.begin(), v4.address.end()),
            bytes("0a010203") + std::string(12, '\0'));
  const auto& v6 = *reinterpret_cast<const Lattice::IpGenPrefix*>(fields[1]);
  EXPECT_EQ(v6.family, Lattice::IpGenPrefix::ipv6);
  EXPECT_EQ(v6.length, 64);
  EXPECT_EQ(v6.address[15], 1);
  EXPECT_EQ(*fields[2], 7);
}

TEST_F(FieldConversion, FieldWithoutBitsTakesAByteAndIsZero) {
  slotsAre({{0}, {8}}, action);
  std::string data = bytes("99 42");
  const auto fields = extracted(data, action);
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(*fields[0], 0);
  EXPECT_EQ(*fields[1], 0x42);
  std::string none;
  EXPECT_TRUE(extracted(none, {tableResource, 99}).empty()) << "of an unknown table";
}

TEST_F(FieldConversion, NewRowMakesRoomForEightPrefixes) {
  info_.onNewRowStarted();
  extractPrefixes(8);
  info_.onNewRowStarted();
  extractPrefixes(8);
  EXPECT_DEATH(extractPrefixes(1), "prefixIndex_ < MaxPrefixes.*prefixIndex 8");
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
      {"an LPM field of 48 bits", {{48, true, true}, {32, true}}, "addrBitWidth 48"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    slotsAre(c.slots);
    info_.onNewRowStarted();
    std::string data(20, '\1');
    EXPECT_DEATH(extracted(data), c.death);
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
