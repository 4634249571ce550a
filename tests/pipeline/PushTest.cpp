// What controllers push: the forms of its device configuration, and the entries that go over to it.
#include <gmock/gmock.h>

#include <functional>

#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/CarryOver.h"
#include "pipeline/PushedConfig.h"
#include "tests/pipeline/Scratch.h"

namespace Pipeline {
namespace {

using p4::config::v1::P4Info;
using p4::v1::ForwardingPipelineConfig;
using p4::v1::SetForwardingPipelineConfigRequest;
using testing::HasSubstr;

constexpr uint32_t tableId = 33554433;
constexpr uint32_t otherTableId = 33554434;
constexpr uint32_t profileId = 285212673;

constexpr const char* program = R"(
tables {
  preamble { id: 33554433 name: "c.routes" alias: "routes" }
  match_fields { id: 1 name: "vrf" bitwidth: 10 match_type: EXACT }
  match_fields { id: 2 name: "dst" bitwidth: 32 match_type: LPM }
  action_refs { id: 16777217 }
  direct_resource_ids: 352321537
  size: 10
}
tables {
  preamble { id: 33554434 name: "c.wcmp" alias: "wcmp" }
  match_fields { id: 1 name: "id" bitwidth: 16 match_type: EXACT }
  action_refs { id: 16777217 }
  implementation_id: 285212673
  size: 10
}
actions {
  preamble { id: 16777217 name: "c.forward" alias: "forward" }
  params { id: 1 name: "port" bitwidth: 9 }
}
action_profiles {
  preamble { id: 285212673 name: "c.selector" alias: "selector" }
  table_ids: 33554434
  with_selector: true
  size: 10
}
direct_meters {
  preamble { id: 352321537 name: "c.meter" alias: "meter" }
  spec { unit: BYTES }
  direct_table_id: 33554433
}
)";

SetForwardingPipelineConfigRequest requestOf(const P4Info& p4Info) {
  ForwardingPipelineConfig config;
  *config.mutable_p4info() = p4Info;
  Findings findings;
  const auto request = pipelineOfPush(config, 1, &findings);
  EXPECT_TRUE(request) << textOf(findings);
  return request.value_or(SetForwardingPipelineConfigRequest());
}

TEST(Push, EntriesGoOverWhereTheMeaningIsTheSame) {
  const EntryCounts counts = {{{TableKind::match, tableId}, 5},
                              {{TableKind::match, otherTableId}, 0},
                              {{TableKind::member, profileId}, 3},
                              {{TableKind::group, profileId}, 20}};
  const struct {
    const char* what;
    std::function<void(P4Info&)> change;
    std::string line;  // "": all can stay
  } cases[] = {
      {"nothing", [](P4Info&) {}, ""},
      {"sizes", [](P4Info& p) { p.mutable_tables(0)->set_size(5); }, ""},
      {"too small", [](P4Info& p) { p.mutable_tables(0)->set_size(4); },
       "table c.routes, 5 entries: it has room for 4 now"},
      {"a width", [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(0)->set_bitwidth(11); },
       "its match field vrf has another id, width or kind"},
      {"a field", [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields()->RemoveLast(); },
       "it has more or fewer match fields"},
      {"of a table without entries",
       [](P4Info& p) { p.mutable_tables(1)->mutable_match_fields(0)->set_bitwidth(11); }, ""},
      {"a parameter", [](P4Info& p) { p.mutable_actions(0)->mutable_params(0)->set_bitwidth(16); },
       "its action c.forward has other parameters"},
      {"names that rows do not show",
       [](P4Info& p) { p.mutable_actions(0)->mutable_preamble()->set_name("d.forward"); }, ""},
      {"the alias", [](P4Info& p) { p.mutable_tables(0)->mutable_preamble()->set_alias("r"); },
       "the new pipeline has no such table"},
      {"the meter's columns",
       [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(0)->set_name("v"); },
       "it has a direct meter, and its columns or actions are others"},
      {"no selector", [](P4Info& p) { p.mutable_action_profiles(0)->set_with_selector(false); },
       "action profile c.selector, 3 members: its selector or the size of its groups is another"},
      {"a small profile", [](P4Info& p) { p.mutable_action_profiles(0)->set_size(2); },
       "action profile c.selector, 3 members: it has room for 2 now"},
  };
  const P4Info former = p4InfoOf(program);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    P4Info next = former;
    c.change(next);
    const auto lines = obstaclesToEntries(requestOf(former), requestOf(next), counts);
    if (c.line.empty()) {
      EXPECT_THAT(lines, testing::IsEmpty());
    } else {
      EXPECT_THAT(lines, testing::Contains(HasSubstr(c.line)));
    }
  }
}

TEST(Push, TheProgramIsFoundInItsWrapping) {
  const std::string json = " {\"program\": 1}";
  p4::tmp::P4DeviceConfig device;
  device.set_reassign(true);
  device.set_device_data(json);
  EXPECT_EQ(programOf(device.SerializeAsString()), json);
  // A plane's own message begins with a name where the wrapping has a number.
  for (const std::string& bytes : {std::string(), json, std::string("\x0a\x01n\x12\x02{}"),
                                   std::string(1, '\0'), std::string("\x08\x01")}) {
    EXPECT_EQ(programOf(bytes), bytes);
  }
}

TEST(Push, ADeviceConfigurationOfOursIsUsed) {
  ForwardingPipelineConfig config = requestOf(p4InfoOf(program)).config();
  for (const std::string& given :
       {config.p4_device_config(), programOf(config.p4_device_config())}) {
    config.set_p4_device_config(given);
    Findings findings;
    const auto request = pipelineOfPush(config, 7, &findings);
    ASSERT_TRUE(request) << textOf(findings);
    EXPECT_EQ(request->device_id(), 7u);
    EXPECT_EQ(programOf(request->config().p4_device_config()), programOf(given));
  }
}

}  // namespace
}  // namespace Pipeline
