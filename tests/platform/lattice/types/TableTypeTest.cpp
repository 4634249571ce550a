// The definition language.
#include "platform/lattice/types/TableType.h"

#include <gtest/gtest.h>

#include <random>

namespace Lattice {
namespace {

constexpr const char* everything = R"(
  key vrf_id : U16;   // a comment
  key ipv4_dst : IpGenPrefix;
  key ether_type : U16 value; key ether_type_mask : U16 mask;
  key hdr.mpls[0].label : U32 range;
  key priority : U32 priority;
  action {
    set_nexthop 16777218 { nexthop_id : U32; }
    drop 0x01000003 { none : Void; }
    rewrite 3 { smac : EthAddr; blob : Bytes<3>; ids : U64[]; }
  }
  meter;
  counter;
  member_id : U32[];
)";

TEST(TableType, CompilesEveryKindOfColumn) {
  const auto type = TableType::compile("T", everything);
  EXPECT_EQ(type->keySize(), 2u + 24 + 2 + 2 + 4 + 4);
  EXPECT_EQ(type->keyColumns()[4].name, "hdr.mpls[0].label");
  EXPECT_EQ(type->keyColumns()[5].role, ColumnRole::priority);
  ASSERT_EQ(type->valueParts().size(), 4u);
  EXPECT_EQ(type->valueParts()[0].part, TableType::Part::action);
  EXPECT_EQ(type->valueParts()[3].column.type, ColumnType::u32Array);
  EXPECT_EQ(type->action(16777219)->name, "drop");
  EXPECT_EQ(type->action(3)->fields[1].size, 3u);
  EXPECT_EQ(type->action(4), nullptr);
}

TEST(TableType, ErrorsNameLineAndWhatIsWrong) {
  const struct {
    const char* definition;
    const char* message;
  } cases[] = {
      {"key a : U16",
       "line 1: expected value, mask, range, low, high, prefix, length, optional, "
       "present, priority or ';', found the end"},
      {"\n\nkey a : U17;", "line 3: column a has the unknown type U17"},
      {"key a : U8;\nkey a : U8;", "line 2: there are two columns a"},
      {"key a : U32[];", "column a has a type that cannot be in a key"},
      {"key a : Void;", "column a has a type that cannot be in a key"},
      {"key a : Bytes<0>;", "out of 1 to 1024"},
      {"key a : Bytes<1025>;", "out of 1 to 1024"},
      {"key a : Bytes<99999999999>;", "expected a number of bytes"},
      {"key a : U16 value;", "value a has no mask"},
      {"key a : U16 value; key b : U32 mask;", "differ in type"},
      {"key a : U16 mask;", "comes right after its value"},
      {"key a : Bits<0>;", "out of 1 to 8192 bits"},
      {"key a : Bits<8193>;", "out of 1 to 8192 bits"},
      {"key a : U16 low; key b : U8;", "column a is a low; its high comes next"},
      {"key a : U16 low; key b : U16 mask;", "its high comes next"},
      {"key a : Bits<9> low; key b : Bits<10> high;", "differ in type"},
      {"key a : U16 high;", "high a comes right after its low"},
      {"key a : Bits<9> prefix; key b : EthAddr length;", "the length b is of type U8"},
      {"key a : Bits<9> prefix;", "prefix a has no length"},
      {"key a : U16 optional; key b : U16 present;", "is of type U8"},
      {"key p : U32 priority; key a : U8;", "the priority is the key's last column"},
      {"key p : EthAddr priority;", "the priority is of type"},
      {"a : U8; key b : U8;", "key columns come before all others"},
      {"a : U8[];", "arrays are of U32 or U64"},
      {"action { }", "at least one action"},
      {"action { a 1 {} } action { b 2 {} }", "there are two columns action"},
      {"action { a 1 {} b 1 {} }", "action b has the id of a"},
      {"action { a x {} }", "expected the id of action a, found 'x'"},
      {"action { a 1 { f : U8; ", "expected a field of action a, found the end"},
      {"meter; meter;", "there are two columns meter"},
      {"lock a;", "expected ':' after the column name lock"},
      {"}", "found '}'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.definition);
    try {
      TableType::compile("T", c.definition);
      ADD_FAILURE() << "compiled";
    } catch (const TypeError& error) {
      EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
      EXPECT_EQ(std::string(error.what()).find("table type T, line "), 0u) << error.what();
    }
  }
  std::string wide;
  for (int i = 0; i < 3; ++i) wide += "key k" + std::to_string(i) + " : Bytes<1000>;";
  EXPECT_THROW(TableType::compile("T", wide), TypeError);
}

TEST(TableType, NoTextIsACrash) {
  std::mt19937 random(9);
  const std::string good = everything;
  for (int round = 0; round < 3000; ++round) {
    std::string text = good;
    for (int hits = 0; hits < 3; ++hits) {
      const size_t at = random() % text.size();
      if (round % 3 == 0) text.erase(at, random() % 40);
      if (round % 3 == 1) text[at] = static_cast<char>(random());
      if (round % 3 == 2) text.insert(at, good.substr(random() % good.size(), random() % 30));
    }
    try {
      TableType::compile("T", text);
    } catch (const TypeError&) {
    }
  }
}

}  // namespace
}  // namespace Lattice
