// The row of a controller's entry, for every kind of column that an integrator may choose for
// a field or a parameter: the value as it was written, or a refusal.
#include <fmt/format.h>

#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

struct Choice {
  uint32_t bits;
  std::string column;  // its type
  std::string name;    // of the parameter
};

const std::vector<Choice>& choices() {
  static const auto* all = [] {
    auto* list = new std::vector<Choice>;
    for (const uint32_t bits : {1, 8, 9, 16, 20, 25, 32, 33, 48, 64, 128, 255}) {
      const std::string bytes = fmt::format("Bytes<{}>", (bits + 7) / 8);
      for (const char* name : {"value", "src_addr"}) {
        for (const std::string& column :
             {std::string("U8"), std::string("U16"), std::string("U32"), std::string("U64"),
              std::string("IpAddr"), std::string("Ip6Addr"), std::string("EthAddr"),
              std::string("IpGenPrefix"), bytes}) {
          list->push_back({bits, column, name});
        }
      }
    }
    return list;
  }();
  return *all;
}

constexpr uint32_t firstTable = 0x02000001;
constexpr uint32_t firstAction = 0x01000001;

// A table of its own for each choice. Its key's column stands between two others.
p4::v1::SetForwardingPipelineConfigRequest pipelineOfChoices() {
  std::string p4Info;
  std::string types;
  std::string tables;
  for (uint32_t i = 0; i < choices().size(); ++i) {
    const Choice& choice = choices()[i];
    p4Info += fmt::format(
        R"(actions {{ preamble {{ id: {0} name: "a{1}" }} params {{ id: 1 name: "{4}" bitwidth: {3} }} }}
           tables {{ preamble {{ id: {2} name: "t{1}" }} action_refs {{ id: {0} }}
             match_fields {{ id: 1 name: "before" bitwidth: 8 match_type: EXACT }}
             match_fields {{ id: 2 name: "value" bitwidth: {3} match_type: EXACT }}
             match_fields {{ id: 3 name: "behind" bitwidth: 16 match_type: EXACT }} }} )",
        firstAction + i, i, firstTable + i, choice.bits, choice.name);
    // Of a parameter with another name the key is sound, so that it does not hide the parameter.
    const uint32_t bytes = (choice.bits + 7) / 8;
    const std::string sound = bytes == 1   ? "U8"
                              : bytes == 2 ? "U16"
                              : bytes == 4 ? "U32"
                                           : fmt::format("Bytes<{}>", bytes);
    const std::string keyColumn = choice.name == "value" ? choice.column : sound;
    types += fmt::format(
        R"({}{{"table_type": "t{}", "table_type_def": "key before : U8; key value : {}; key behind : U16; action {{ a {} {{ value : {}; }} }}"}})",
        i ? "," : "", i, keyColumn, firstAction + i, choice.column);
    tables += fmt::format(
        R"({}{{"table_name": "t{}", "table_id": {}, "table_type": "t{}", "table_class": "", "table_fields": [
          {{"field_name": "before", "field_type": "U8"}}, {{"field_name": "value", "field_type": "{}"}},
          {{"field_name": "behind", "field_type": "U16"}}]}})",
        i ? "," : "", i, firstTable + i, i, keyColumn);
  }
  return pipelineOf(
      p4Info, fmt::format(R"({{"p4rtc": {{"table_type_definitions": [{}], "tables": [{}]}}}})",
                          types, tables));
}

// 1, 2, 3 ... as the front end sends it: as long as the width, big-endian.
std::string valueOf(uint32_t bits) {
  std::string value;
  for (uint32_t i = 0; i < (bits + 7) / 8; ++i) value += static_cast<char>(i + 1);
  return value;
}

std::string reversed(std::string bytes) { return {bytes.rbegin(), bytes.rend()}; }

class RowTest : public AgentTest {};

TEST_F(RowTest, HoldsWhatWasWrittenOrTheWriteIsRefused) {
  agent().pipelineIs(pipelineOfChoices(), "choices");
  ASSERT_EQ(agent().tableInfo->tableInfoState(), P4TableInfoState::tableInfoReady);
  std::set<std::string> programmed;
  for (uint32_t i = 0; i < choices().size(); ++i) {
    const Choice& choice = choices()[i];
    SCOPED_TRACE(fmt::format("{} of {} bits in {}", choice.name, choice.bits, choice.column));
    const std::string value = valueOf(choice.bits);
    const std::string key = "\7" + value + "\1\2";
    const int code = codeOfAdd({firstTable + i, key, firstAction + i, value});
    if (code == 12) {
      EXPECT_THAT(message(), testing::HasSubstr(fmt::format("t{} cannot be programmed: ", i)));
      continue;
    }
    ASSERT_EQ(code, 0) << message();
    const auto& interface =
        agent().tableInfo->latticeTableInterface({tableResource, firstTable + i});
    const auto row = interface->row(key);
    ASSERT_TRUE(row) << "its key is not what was written";
    const bool integer = choice.column[0] == 'U';
    EXPECT_EQ(row->value.substr(4), integer ? reversed(value) : value);
    programmed.insert(fmt::format("{} {} {}", choice.name, choice.bits, choice.column));
  }
  for (const char* one : {"value 9 U16", "value 32 U32", "value 33 Bytes<5>", "value 48 EthAddr",
                          "value 128 Ip6Addr", "src_addr 32 IpAddr"}) {
    EXPECT_TRUE(programmed.contains(one)) << one;
  }
}

}  // namespace
}  // namespace P4Runtime
