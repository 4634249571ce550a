// What the switch does between and behind the pipelines: copies, packets that go round, meters,
// digests, and bounds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "p4/program/ProgramError.h"
#include "tests/p4/Playing.h"

namespace P4Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A byte `h`; both actions; field list 1 keeps egress_rid.
SmallProgram copyProgram(const Strings& ingress, const Strings& egress) {
  SmallProgram program;
  program.header("h", {{"v", 8}});
  program.state("start", list({extract("h")}));
  program.section(
      "field_lists",
      R"([{"id":1,"name":"kept","elements":[{"type":"field","value":["standard_metadata","egress_rid"]}]},
                                     {"id":2,"name":"none","elements":[]}])");
  program.ingressAction(calls(ingress));
  program.egressAction(calls(egress));
  program.deparse({"h"});
  return program;
}

const std::string value = field("h", "v");

TEST(SwitchTest, CopiesAndRounds) {
  const std::string type = metadata("instance_type");
  const std::string addType = assign(value, wrapped(op("+", value, type)));
  const std::string toPort2 = assign(metadata("egress_spec"), hex(2));
  // Only a packet of instance type `type` does the call behind it.
  const auto onlyIf = [&](uint64_t number, const std::string& then, uint64_t over) {
    return Strings{
        call("_jump_if_zero", {wrapped(op("b2d", "null", op("==", type, hex(number)))), hex(over)}),
        then};
  };
  const auto both = [](Strings one, const Strings& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
  };
  const struct {
    const char* what;
    Strings ingress, egress, out;
  } cases[] = {
      {"port 0 without a choice", {}, {}, {"0:10ee"}},
      {"unicast is normal", {toPort2}, {addType}, {"2:10ee"}},
      {"a clone of ingress is parsed from the packet as it came",
       {toPort2, assign(value, hex(0x50)), call("clone_ingress_pkt_to_egress", {hex(5), hex(2)})},
       {addType},
       {"2:50ee", "6:11ee"}},
      {"a clone keeps the fields of its list",
       {toPort2, assign(metadata("egress_rid"), hex(0x21)),
        call("clone_ingress_pkt_to_egress", {hex(5), hex(1)})},
       {assign(value, metadata("egress_rid"))},
       {"2:21ee", "6:21ee"}},
      {"a clone without session is none",
       {toPort2, call("clone_ingress_pkt_to_egress", {hex(4), hex(1)})},
       {},
       {"2:10ee"}},
      {"a clone outlives the drop",
       {call("clone_ingress_pkt_to_egress", {hex(5), hex(2)}),
        call("mark_to_drop", {object("header", "standard_metadata")})},
       {},
       {"6:10ee"}},
      {"a clone of egress has the headers as they are",
       {toPort2},
       both(onlyIf(0, call("clone_egress_pkt_to_egress", {hex(5), hex(2)}), 2),
            {addType, assign(value, wrapped(op("+", value, hex(1))))}),
       {"2:11ee", "6:14ee"}},
      {"multicast beats the drop",
       {assign(metadata("egress_spec"), hex(511)), assign(metadata("mcast_grp"), hex(1))},
       {addType},
       {"1:15ee", "2:15ee"}},
      {"a group without replicas drops", {toPort2, assign(metadata("mcast_grp"), hex(9))}, {}, {}},
      {"a priority without queue drops", {toPort2, assign(metadata("priority"), hex(1))}, {}, {}},
      {"egress cannot change the port",
       {toPort2},
       {assign(metadata("egress_spec"), hex(7))},
       {"2:10ee"}},
      {"egress drops",
       {toPort2},
       {call("mark_to_drop", {object("header", "standard_metadata")})},
       {}},
      {"egress_spec reads 0 in egress",
       {toPort2},
       {assign(value, metadata("egress_spec"))},
       {"2:00ee"}},
      {"resubmission brings the packet back as it came",
       both({toPort2, addType}, onlyIf(0, call("resubmit", {hex(2)}), 4)),
       {},
       {"2:16ee"}},
      {"recirculation brings it back as it would leave",
       {toPort2, addType},
       both({assign(value, wrapped(op("+", value, hex(1))))},
            {call("_jump_if_zero", {wrapped(op("b2d", "null", op("<", value, hex(0x18)))), hex(3)}),
             call("recirculate", {hex(2)})}),
       {"2:1bee"}},
      {"the last request counts",
       {toPort2, call("clone_ingress_pkt_to_egress", {hex(4), hex(1)}),
        call("clone_ingress_pkt_to_egress", {hex(5), hex(2)})},
       {},
       {"2:10ee", "6:10ee"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    P4::Engine engine(copyProgram(c.ingress, c.egress).json());
    engine.tables().setMulticast(1, {{1, 1}, {2, 1}});
    engine.tables().setSession(5, P4::Session{.port = 6});
    engine.tables().commit();
    EXPECT_EQ(play(engine, 3, "10ee"), c.out);
  }
}

TEST(SwitchTest, NothingGoesRoundForEver) {
  const auto dropped = [](const P4::Engine& engine, P4::DropReason reason) {
    return engine.counts().dropped[static_cast<size_t>(reason)];
  };
  {
    P4::Engine engine(copyProgram({}, {call("recirculate", {hex(2)})}).json());
    EXPECT_THAT(play(engine, 1, "10ee"), IsEmpty());
    EXPECT_EQ(dropped(engine, P4::DropReason::tooManyPasses), 1u);
  }
  {
    P4::Engine engine(copyProgram({call("no_op", {}), call("_jump", {hex(0)})}, {}).json());
    EXPECT_THAT(play(engine, 1, "10ee"), IsEmpty());
    EXPECT_EQ(dropped(engine, P4::DropReason::tooManySteps), 1u);
  }
  {
    P4::Engine engine(
        copyProgram({}, {call("clone_egress_pkt_to_egress", {hex(5), hex(2)})}).json());
    engine.tables().setSession(5, P4::Session{.group = 1});
    engine.tables().setMulticast(1, {{1, 1}, {2, 1}});
    engine.tables().commit();
    EXPECT_GT(play(engine, 1, "10ee").size(), 1000u);
    EXPECT_GT(dropped(engine, P4::DropReason::tooManyPasses), 0u);
  }
  SmallProgram parser;
  parser.state("start", "[]", "[]", list({otherwise("start")}));
  parser.ingressAction(assign(metadata("egress_spec"), metadata("parser_error")));
  P4::Engine engine(parser.json());
  EXPECT_THAT(play(engine, 1, "ee"), ElementsAre("5:ee")) << "ParserTimeout";
}

TEST(SwitchTest, MetersColourByTime) {
  SmallProgram program = copyProgram(
      {call("execute_meter", {R"({"type":"meter_array","value":"m"})", hex(0), value})}, {});
  program.section("meter_arrays",
                  R"([{"name":"m","id":0,"type":"packets","rate_count":2,"size":1}])");
  P4::Engine engine(program.json());
  EXPECT_THAT(play(engine, 1, "77"), ElementsAre("0:00")) << "not configured";
  ASSERT_TRUE(engine.setMeter(
      0, 0,
      P4::MeterRates{.committedRate = 1, .committedBurst = 1, .peakRate = 2, .peakBurst = 2}));
  EXPECT_THAT(play(engine, 1, "77"), ElementsAre("0:00")) << "not committed";
  engine.tables().commit();
  Strings colours;
  for (const uint64_t now : {1000000, 1000001, 1000002, 1500000, 2000000, 2000001})
    colours.push_back(play(engine, 1, "77", now)[0]);
  EXPECT_THAT(colours, ElementsAre("0:00", "0:01", "0:02", "0:01", "0:00", "0:02"));
}

TEST(SwitchTest, DigestsWaitForOthersAndAreNotRepeated) {
  SmallProgram program = copyProgram({call("generate_digest", {hex(0), hex(1)})}, {});
  program.section(
      "learn_lists",
      R"([{"id":1,"name":"learn","elements":[{"type":"field","value":["h","v"]},{"type":"field","value":["standard_metadata","ingress_port"]}]}])");
  P4::Engine engine(program.json());
  engine.setDigest(0, {.maxSamples = 2, .maxWait = 1000});
  const auto samples = [&](const std::string& frame, uint64_t now) {
    const std::string bytes = bytesOf(frame);
    P4::Outputs outputs;
    engine.process(3, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, now, outputs);
    engine.digestsDue(now, outputs.digests);
    Strings all;
    for (const P4::DigestList& one : outputs.digests)
      for (const std::string& sample : one.samples) all.push_back(hexOf(sample));
    return all;
  };
  EXPECT_THAT(samples("aa", 0), IsEmpty());
  EXPECT_THAT(samples("aa", 1), IsEmpty()) << "waits already";
  EXPECT_THAT(samples("bb", 2), ElementsAre("aa0003", "bb0003"));
  EXPECT_THAT(samples("bb", 3), IsEmpty()) << "not acknowledged";
  engine.acknowledgeDigest(0, 1);
  EXPECT_THAT(samples("bb", 4), IsEmpty());
  EXPECT_THAT(samples("bb", 1004), ElementsAre("bb0003")) << "has waited long enough";
}

TEST(SwitchTest, WhatIsNotExecutedIsRefusedByNameAndPlace) {
  const struct {
    std::string json;
    const char* message;
  } cases[] = {
      {copyProgram({call("frobnicate", {})}, {}).json(),
       R"(actions[0].primitives[0].op: the primitive "frobnicate" is not executed)"},
      {copyProgram({assign(value, wrapped(op("<<<", value, value)))}, {}).json(),
       R"(the operator "<<<" is not executed)"},
      {copyProgram({assign(value, field("h", "w"))}, {}).json(), R"(has no field "w")"},
      {copyProgram({call("assign", {value})}, {}).json(),
       "actions[0].primitives[0].parameters: \"assign\" takes 2 parameters"},
      {copyProgram({call("truncate", {object("header", "h")})}, {}).json(),
       "a number is wanted here, not a header"},
  };
  for (const auto& c : cases) {
    try {
      P4::Engine engine(c.json);
      ADD_FAILURE() << "taken: " << c.message;
    } catch (const P4::ProgramError& error) {
      EXPECT_THAT(error.what(), HasSubstr(c.message));
    }
  }
  SmallProgram other = copyProgram({}, {});
  std::string json = other.json();
  json.replace(json.find(R"("name":"parser")"), 15, R"("name":"ingress_parser")");
  try {
    P4::Engine engine(json);
    ADD_FAILURE() << "another architecture was taken";
  } catch (const P4::ProgramError& error) {
    EXPECT_THAT(error.what(), HasSubstr("ingress_parser"));
  }
}

}  // namespace
}  // namespace P4Test
