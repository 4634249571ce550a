// From a P4Info's JSON form to slot layouts, actions, sizes and direct resources.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "P4Runtime/pipeline/ParsingStatus.h"
#include "platform/vela/ActivityLock.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class P4InfoParsing : public testing::Test {
 protected:
  P4InfoParsing() : parts_(directory_.path()) {}

  void parse(const std::string& tables, const std::string& others = "") {
    parts_.tableInfo->modelDel();
    parts_.tableInfoSm->handleP4InfoStr(
        R"({"actions": [{"preamble": {"id": 1, "name": "none"}}, {"preamble": {"id": 2},
            "params": [{"name": "dmac", "bitwidth": 48}, {"name": "Dmac", "bitwidth": 32},
                       {"name": "src_addr", "bitwidth": 24}, {"name": "wide", "bitwidth": 256}]}],
            "tables": [)" +
        tables + "]" + (others.empty() ? "" : ", " + others) + "}");
  }
  // "16 32/n 128p": widths of a resource's slots, with network order and prefix.
  std::string layout(ResourceId rid) {
    const FieldBitwidths& widths = info().fieldBitwidths(rid);
    std::string text;
    for (uint32_t slot = 0; slot < widths.slots(); ++slot) {
      text += (slot ? " " : "") + std::to_string(widths.fieldBitwidth(slot)) +
              (widths.fieldIsIpPrefix(slot) ? "p" : "") +
              (widths.fieldInNetworkByteOrder(slot) ? "n" : "");
    }
    return text;
  }
  const P4TableInfo& info() const { return *parts_.tableInfo; }

  const Vela::ActivityLock lock_;
  TempDir directory_;
  AgentParts parts_;
};

TEST_F(P4InfoParsing, LaysSlotsOutByMatchType) {
  const struct {
    const char* type;
    uint32_t width;
    const char* layout;
    bool priority;
  } cases[] = {
      {"EXACT", 16, "16", false},       {"OPTIONAL", 9, "9", false},
      {"TERNARY", 48, "48 48", true},   {"ternary", 8, "8 8", true},
      {"RANGE", 16, "16", true},        {"Range", 16, "16", true},
      {"LPM", 32, "32p 32n", false},    {"lpm", 128, "128p 32n", false},
      {"EXACT", 0, "0", false},         {"EXACT", 256, "0", false},
      {"SOMETHING_NEW", 7, "7", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + std::to_string(c.width));
    parse(R"({"preamble": {"id": 5}, "matchFields": [{"name": "f", "bitwidth": )" +
          std::to_string(c.width) + R"(, "matchType": ")" + c.type + R"("}]})");
    EXPECT_EQ(layout({tableResource, 5}), c.layout);
    EXPECT_EQ(info().priorityNeeded({tableResource, 5}), c.priority);
  }
  EXPECT_TRUE(parts_.tableInfoSm->bitwidthsInitialized());
}

TEST_F(P4InfoParsing, ParametersOfFourNamesAreInNetworkOrder) {
  parse("");
  EXPECT_EQ(layout({actionResource, 1}), "0");
  EXPECT_EQ(layout({actionResource, 2}), "48n 32 24n 0");
  EXPECT_EQ(info().nameOf({actionResource, 1}), "none");
  EXPECT_EQ(info().nameOf({actionResource, 2}), "action 2");
}

TEST_F(P4InfoParsing, TablesHaveActionsSizesAndDirectResources) {
  parse(
      R"({"preamble": {"id": 5}, "size": "4294967295", "actionRefs": [{"id": 2}, {"id": 1}],
            "directResourceIds": [70, 99]},
           {"preamble": {"id": 6}, "size": "4294967296", "directResourceIds": [60, 70]},
           {"preamble": {"id": 7}}, {"PREAMBLE": {"Id": 8}, "Size": "-1"})",
      R"("directMeters": [{"preamble": {"id": 60}}], "directCounters": [{"preamble": {"id": 70}}])");
  EXPECT_EQ(info().actionIdColForTable({tableResource, 5}).actionId(),
            (std::vector<uint32_t>{2, 1}));
  EXPECT_EQ(info().maxTableSize({tableResource, 5}), UINT32_MAX);
  EXPECT_EQ(info().maxTableSize({tableResource, 6}), UINT32_MAX) << "more than there can be";
  EXPECT_TRUE(info().maxTableSizeHas({tableResource, 8})) << "names are found in any case";
  EXPECT_EQ(info().maxTableSize({tableResource, 8}), 0u);
  EXPECT_FALSE(info().hasDirectMeter({tableResource, 5}));
  EXPECT_TRUE(info().hasDirectCounter({tableResource, 5}));
  EXPECT_TRUE(info().hasDirectMeter({tableResource, 6}));
  EXPECT_FALSE(info().maxTableSizeHas({tableResource, 7}));
  EXPECT_TRUE(info().actionIdColForTable({tableResource, 7}).actionId().empty());
}

TEST_F(P4InfoParsing, ProfileHasEachActionOfItsTablesOnce) {
  parse(R"({"preamble": {"id": 5}, "actionRefs": [{"id": 2}, {"id": 1}]},
           {"preamble": {"id": 6}, "actionRefs": [{"id": 3}, {"id": 2}]})",
        R"("actionProfiles": [{"preamble": {"id": 9}, "tableIds": [5, 6, 77], "size": "10"},
                              {"preamble": {"id": 10}}])");
  EXPECT_EQ(info().actionIdColForTable({actionProfileResource, 9}).actionId(),
            (std::vector<uint32_t>{2, 1, 3}));
  EXPECT_EQ(info().maxTableSize({actionProfileResource, 9}), 10u);
  EXPECT_EQ(layout({actionProfileResource, 9}), "32");
  EXPECT_TRUE(info().actionIdColForTable({actionProfileResource, 10}).actionId().empty());
}

TEST_F(P4InfoParsing, TellsWhatIsMissing) {
  const struct {
    const char* json;
    const char* error;
    const char* stoppedAt;
  } cases[] = {
      {"", "cannot parse JSON root", ""},
      {"{\"actions\": [", "cannot parse JSON root", ""},
      {"{\"actions\": x", "cannot parse JSON root", "x"},
      {"{}", "Cannot find actions section in the P4Info file", ""},
      {"{\"tables\": []}", "Cannot find actions section in the P4Info file", ""},
      {"{\"actions\": {}}", "Cannot find actions section in the P4Info file", ""},
      {"{\"actions\": []}", "Cannot find tables section in the P4Info file", ""},
      {"[]", "Cannot find actions section in the P4Info file", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    try {
      parts_.tableInfoSm->handleP4InfoStr(c.json);
      FAIL();
    } catch (const P4RuntimeParsingException& e) {
      EXPECT_EQ(e.error, c.error);
      EXPECT_THAT(e.jsonError, testing::StartsWith(c.stoppedAt));
    }
    EXPECT_FALSE(parts_.tableInfoSm->bitwidthsInitialized());
  }
}

TEST_F(P4InfoParsing, OddElementsAreNoReasonToStop) {
  parse(R"({"preamble": "x"}, 5, null, {"preamble": {"id": -1}}, {"preamble": {"id": 1e30}},
           {"preamble": {"id": 5}, "matchFields": [7, {"bitwidth": "16"}, {"bitwidth": -5}],
            "size": "many", "actionRefs": [null, {"id": "2"}], "directResourceIds": ["x"]})");
  EXPECT_EQ(layout({tableResource, 5}), "0 0 0");
  EXPECT_EQ(info().maxTableSize({tableResource, 5}), 0u);
}

}  // namespace
}  // namespace P4Runtime
