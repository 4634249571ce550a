// Rows built from fields, and shown as text.
#include <gtest/gtest.h>

#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/RowConstructor.h"

namespace Lattice {
namespace {

using namespace std::string_literals;

constexpr const char* definition = R"(
  key vrf_id : U16;
  key dst : IpGenPrefix;
  key type : U16 value; key type_mask : U16 mask;
  key priority : U32 priority;
  action { set_nexthop 7 { nexthop_id : U32; smac : EthAddr; } drop 8 { none : Void; } }
  meter; counter;
  members : U32[];
)";

template <typename T>
const uint8_t* field(const T& value) {
  return reinterpret_cast<const uint8_t*>(&value);
}

struct RowTest : testing::Test {
  const std::shared_ptr<const TableType> type = [] {
    auto compiled = TableType::compile("RowType", definition);
    TheTypeRegistry().typeIs(compiled);
    return compiled;
  }();
  const RowConstructor rows{"RowType",
                            {"vrf_id", "dst", "dst", "type", "type"},
                            {"U16", "IpGenPrefix", "PrefixLen", "U16", "U16"}};
};

struct Fields {
  uint16_t vrf = 0x0102, type = 0x0800, mask = 0xffff;
  IpGenPrefix dst{.family = IpGenPrefix::ipv4, .length = 8, .address = {10}};
  uint32_t priority = 300, action = 7, nexthop = 0x01020304, drop = 8;
  uint8_t smac[6] = {0, 17, 34, 51, 68, 85}, on = 1;
  uint64_t rate = 5;
  uint32_t members[2] = {1, 2};
  ArrayField array{members, 2};
  std::vector<const uint8_t*> key() const {
    return {field(vrf), field(dst), field(type), field(mask)};
  }
  std::vector<const uint8_t*> whole(bool dropped = false) const {
    auto all = key();
    const auto add = [&](std::initializer_list<const uint8_t*> more) {
      all.insert(all.end(), more);
    };
    if (dropped) {
      add({field(drop), nullptr});
    } else {
      add({field(action), field(nexthop), smac});
    }
    add({&on, field(rate), field(rate), field(rate), field(rate)});
    add({&on, field(rate), field(rate)});
    add({field(array), field(priority)});
    return all;
  }
};

TEST_F(RowTest, HasTheLayoutOfItsType) {
  const Fields fields;
  const Row row = rows.construct(fields.whole());
  EXPECT_EQ(row.key,
            "\1\2\1\10\0\0\0\0\0\0\12"s + std::string(15, '\0') + "\10\0\377\377\0\0\1\54"s);
  const std::string five = "\5\0\0\0\0\0\0\0"s;
  EXPECT_EQ(row.value, "\7\0\0\0\4\3\2\1\0\21\42\63\104\125\1"s + five + five + five + five + "\1" +
                           five + five + "\2\0\0\0\1\0\0\0\2\0\0\0"s);
  EXPECT_EQ(rows.construct(fields.whole(true)).value.size(), row.value.size() - 10);
  auto key = fields.key();
  key.push_back(field(fields.priority));
  EXPECT_EQ(rows.constructKey(key), row.key);
}

TEST_F(RowTest, IsShownColumnByColumn) {
  const Row row = rows.construct(Fields().whole());
  std::string text;
  for (const auto& column : keyTexts(rows.type(), row.key))
    text += column.name + "=" + column.text + " ";
  EXPECT_EQ(text, "vrf_id=0x0102 dst=10.0.0.0/8 type=0x0800 type_mask=0xffff priority=300 ");
  text.clear();
  for (const auto& column : valueTexts(rows.type(), row.value)) text += column.text + " ";
  EXPECT_EQ(text, "set_nexthop 0x01020304 00:11:22:33:44:55 1 5 5 5 5 1 5 5 [1, 2] ");
  for (size_t size = 0; size < row.value.size(); ++size) {
    EXPECT_THROW(valueTexts(rows.type(), row.value.substr(0, size)), TypeError) << size;
  }
  EXPECT_THROW(valueTexts(rows.type(), row.value + "x"), TypeError);
  EXPECT_THROW(keyTexts(rows.type(), row.key + "x"), TypeError);
}

TEST_F(RowTest, RefusesFieldsThatAreNotOfItsType) {
  Fields fields;
  auto few = fields.whole();
  few.pop_back();
  EXPECT_THROW(rows.construct(few), TypeError);
  auto many = fields.whole();
  many.push_back(field(fields.vrf));
  EXPECT_THROW(rows.construct(many), TypeError);
  auto missing = fields.whole();
  missing[2] = nullptr;
  EXPECT_THROW(rows.construct(missing), TypeError);
  EXPECT_THROW(rows.construct({}), TypeError);
  fields.action = 99;
  EXPECT_THROW(rows.construct(fields.whole()), TypeError);
}

TEST_F(RowTest, NeedsAFieldListThatAgrees) {
  using Names = std::vector<std::string>;
  const struct {
    const char* what;
    std::string type;
    Names names, types;
    const char* message;  // null: agrees
  } cases[] = {
      {"agrees with the priority",
       "RowType",
       {"vrf_id", "dst", "dst", "type", "type", "priority"},
       {"U16", "IpGenPrefix", "PrefixLen", "U16", "U16", "U32"},
       nullptr},
      {"no such type", "Nowhere", {}, {}, "there is no table type Nowhere"},
      {"a field of another type", "RowType", {"vrf_id"}, {"U32"}, "field vrf_id is U32"},
      {"too few", "RowType", {"vrf_id"}, {"U16"}, "field dst is missing"},
      {"names and types", "RowType", {"vrf_id"}, {}, "differ in number"},
      {"another name", "RowType", {"vlan"}, {"U16"}, "field vlan stands in the place of"},
      {"too many",
       "RowType",
       {"vrf_id", "dst", "type", "type_mask", "priority", "x"},
       {"U16", "IpGenPrefix", "U16", "U16", "U32", "U8"},
       "field x has no column"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string message;
    try {
      const RowConstructor made(c.type, c.names, c.types);
    } catch (const TypeError& error) {
      message = error.what();
    }
    EXPECT_EQ(message.empty(), !c.message) << message;
    EXPECT_NE(message.find(c.message ? c.message : ""), std::string::npos) << message;
  }
}

}  // namespace
}  // namespace Lattice
