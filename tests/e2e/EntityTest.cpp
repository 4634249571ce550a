// Entities that are no table entries, written by a controller that pushed its program: read back as
// written, kept over a kill, put back when the forwarding plane fails them.
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>

#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"

using google::protobuf::TextFormat;
using grpc::StatusCode;
using p4::v1::Entity;
using p4::v1::Update;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAreArray;
using namespace TestSupport;

namespace {

using Set = p4::v1::SetForwardingPipelineConfigRequest;

constexpr const char* program = R"(
  tables {
    preamble { id: 33554433 name: "ingress.ports" alias: "ports" }
    match_fields { id: 1 name: "port" bitwidth: 9 match_type: EXACT }
    action_refs { id: 16777217 }
    size: 64
    direct_resource_ids: 318767105
    idle_timeout_behavior: NOTIFY_CONTROL
  }
  tables {
    preamble { id: 33554434 name: "ingress.wcmp" alias: "wcmp" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 16777217 }
    implementation_id: 285212673
    size: 16
  }
  action_profiles {
    preamble { id: 285212673 name: "ingress.hops" alias: "hops" }
    table_ids: 33554434
    with_selector: true
    size: 16
  }
  direct_counters {
    preamble { id: 318767105 name: "ingress.packets" }
    spec { unit: BOTH }
    direct_table_id: 33554433
  }
  actions {
    preamble { id: 16777217 name: "ingress.drop" alias: "drop" }
  }
  counters {
    preamble { id: 301989889 name: "ingress.hits" alias: "hits" }
    spec { unit: BOTH }
    size: 8
  }
  meters {
    preamble { id: 335544321 name: "ingress.rates" alias: "rates" }
    spec { unit: BYTES }
    size: 4
  }
  registers {
    preamble { id: 369098753 name: "ingress.seen" alias: "seen" }
    type_spec { bitstring { bit { bitwidth: 48 } } }
    size: 4
  }
  value_sets {
    preamble { id: 50331649 name: "parser.types" alias: "types" }
    match { id: 1 name: "ether_type" bitwidth: 16 match_type: TERNARY }
    match { id: 2 name: "vlan" bitwidth: 12 match_type: EXACT }
    size: 2
  }
  digests {
    preamble { id: 385875969 name: "learn" alias: "learn" }
    type_spec { bitstring { bit { bitwidth: 48 } } }
  })";

Entity entity(const std::string& text) {
  Entity parsed;
  EXPECT_TRUE(TextFormat::ParseFromString(text, &parsed)) << text;
  return parsed;
}

// The bursts of these rates: enough to tell the fields apart.
const std::string rates = "cir: 1 cburst: 2 pir: 3 pburst: 4";

class EntityTest : public testing::Test {
 protected:
  EntityTest()
      : agent_({.stateDirectory = directory_.file("state"), .pipelineFile = ""}),
        forwarder_(directory_.file("state")) {}
  ~EntityTest() override {
    if (HasFailure()) std::cerr << "---- agent ----\n" << agent_.output();
  }

  void SetUp() override {
    agent_.start();
    forwarder_.start();
    ASSERT_TRUE(forwarder_.waitAttached());
    ASSERT_TRUE(controllerBegins());
    ASSERT_TRUE(TextFormat::ParseFromString(program, config_.mutable_p4info()));
    ASSERT_EQ("", push(Set::VERIFY_AND_COMMIT));
  }
  bool controllerBegins() {
    return waitUntil([&] {
      controller_ = std::make_unique<TestController>(agent_.address(), ++electionId_);
      return controller_->waitConnected(std::chrono::milliseconds(100)) &&
             controller_->becomePrimary();
    });
  }
  std::string push(Set::Action action) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(electionId_);
    request.set_action(action);
    *request.mutable_config() = config_;
    grpc::ClientContext context;
    p4::v1::SetForwardingPipelineConfigResponse response;
    return controller_->stub()
        .SetForwardingPipelineConfig(&context, request, &response)
        .error_message();
  }
  void killAgent() {
    agent_.kill();
    agent_.start();
    ASSERT_TRUE(agent_.waitServing()) << agent_.output();
    ASSERT_TRUE(forwarder_.waitAttached());
    ASSERT_TRUE(controllerBegins());
  }

  StatusCode write(Update::Type type, const std::string& text) {
    const WriteOutcome outcome = controller_->write({updateOf(type, entity(text))});
    said_ = outcome.errors.empty() ? outcome.status.error_message() : outcome.errors[0].message();
    return outcome.code(0);
  }
  // In any order: a restart may change that of table entries.
  void expectReads(const std::string& query, const std::vector<std::string>& expected) {
    const EntitiesOutcome read = controller_->read(std::vector<Entity>{entity(query)});
    ASSERT_TRUE(read.status.ok()) << query << ": " << read.status.error_message();
    std::vector<std::string> found;
    for (const Entity& one : read.entities) found.push_back(one.ShortDebugString());
    std::vector<std::string> wanted;
    for (const std::string& one : expected) wanted.push_back(entity(one).ShortDebugString());
    EXPECT_THAT(found, UnorderedElementsAreArray(wanted)) << query;
  }
  std::string rowsOf(const std::string& table) {
    return agent_.korvel({"table", "dump", table}).output;
  }

  const TempDir directory_;
  AgentProcess agent_;
  ForwarderProcess forwarder_;
  p4::v1::ForwardingPipelineConfig config_;
  uint64_t electionId_ = 0;
  std::unique_ptr<TestController> controller_;
  std::string said_;  // of the last write
};

std::string group(int id, const std::string& rest = "") {
  return "packet_replication_engine_entry { multicast_group_entry { multicast_group_id: " +
         std::to_string(id) + " " + rest + " } }";
}
std::string session(int id, const std::string& rest = "") {
  return "packet_replication_engine_entry { clone_session_entry { session_id: " +
         std::to_string(id) + " " + rest + " } }";
}
std::string cell(const std::string& kind, const std::string& rest) {
  const std::string id = kind == "counter" ? "301989889"
                         : kind == "meter" ? "335544321"
                                           : "369098753";
  return kind + "_entry { " + kind + "_id: " + id + " " + rest + " }";
}

TEST_F(EntityTest, WhatIsWrittenIsReadBackAlsoAfterAKill) {
  const std::string both = group(7, R"(replicas { egress_port: 1 instance: 5 }
                                       replicas { port: "\001\002" instance: 5 } metadata: "mine")");
  const std::string cpu =
      session(500, "replicas { egress_port: 510 } class_of_service: 3 packet_length_bytes: 128");
  const std::string members = R"(value_set_entry { value_set_id: 50331649
      members { match { field_id: 1 ternary { value: "\010" mask: "\377" } }
                match { field_id: 2 exact { value: "\003" } } }
      members { match { field_id: 2 exact { value: "\004" } } } })";
  const std::string digest = R"(digest_entry { digest_id: 385875969
      config { max_timeout_ns: 1000 max_list_size: 10 ack_timeout_ns: 2000 } })";
  const std::string meter = cell("meter", "index { index: 2 } config { " + rates + " }");
  const std::string counter =
      cell("counter", "index { index: 1 } data { byte_count: 640 packet_count: 10 }");
  const std::string value =
      cell("register", R"(index { index: 3 } data { bitstring: "\001\002" })");
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, both)) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, group(9))) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, cpu)) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, digest)) << said_;
  for (const std::string& one : {members, meter, counter, value}) {
    EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, one)) << said_;
  }
  const auto expectAll = [&] {
    expectReads(group(0), {both, group(9)});
    expectReads(group(9), {group(9)});
    expectReads(session(500), {cpu});
    expectReads("digest_entry {}", {digest});
    expectReads("value_set_entry { value_set_id: 50331649 }", {members});
    expectReads(cell("meter", "index { index: 2 }"), {meter});
    expectReads(cell("meter", "index { index: 1 }"), {cell("meter", "index { index: 1 }")});
    expectReads(cell("counter", "index { index: 1 }"), {counter});
    expectReads(cell("register", "index { index: 3 }"), {value});
    expectReads(cell("register", "index { index: 0 }"),
                {cell("register", R"(index { index: 0 } data { bitstring: "\000" })")});
  };
  expectAll();
  killAgent();
  expectAll();
  EXPECT_EQ("", push(Set::RECONCILE_AND_COMMIT));
  expectAll();

  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, group(7, "replicas { egress_port: 4 }")))
      << said_;
  expectReads(group(7), {group(7, "replicas { egress_port: 4 }")});
  EXPECT_THAT(rowsOf("pre.multicast_group.replica"), HasSubstr("egress_port"));
  for (const std::string& one : {group(7), group(9), session(500)}) {
    EXPECT_EQ(StatusCode::OK, write(Update::DELETE, one)) << said_;
  }
  EXPECT_EQ(StatusCode::OK, write(Update::DELETE, "digest_entry { digest_id: 385875969 }"))
      << said_;
  expectReads(group(0), {});
  expectReads("digest_entry {}", {});
  EXPECT_EQ("", push(Set::VERIFY_AND_COMMIT));
  expectReads("value_set_entry {}", {"value_set_entry { value_set_id: 50331649 }"});
  expectReads(cell("meter", "index { index: 2 }"), {cell("meter", "index { index: 2 }")});
}

TEST_F(EntityTest, AnEntryHasItsIdleTimeoutAndTheCountsThatAreSet) {
  const auto port = [](int number, const std::string& rest) {
    return "table_entry { table_id: 33554433 match { field_id: 1 exact { value: \"\\00" +
           std::to_string(number) + "\" } } " + rest + " }";
  };
  const auto counter = [&](int packets) {
    return "direct_counter_entry { " + port(1, "") +
           " data { packet_count: " + std::to_string(packets) + " } }";
  };
  const std::string drop = "action { action { action_id: 16777217 } } ";
  const std::string first = port(1, drop + "idle_timeout_ns: 1500");
  const std::string second = port(2, drop);
  const auto counted = [&](const std::string& text, int packets) {
    return text.substr(0, text.size() - 1) +
           "counter_data { packet_count: " + std::to_string(packets) + " } }";
  };
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, counted(first, 3))) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, second)) << said_;
  const std::string all = "table_entry { table_id: 33554433 counter_data {} }";
  expectReads(all, {counted(first, 3), counted(second, 0)});
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, counter(9))) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, port(2, "idle_timeout_ns: 7"))) << said_;
  expectReads(all, {counted(first, 9), counted(port(2, drop + "idle_timeout_ns: 7"), 0)});
  EXPECT_THAT(rowsOf("idle_timeout.ports"), HasSubstr("5dc"));
  // The forwarder of this test forwards no packet, and tells of none.
  const EntitiesOutcome timed = controller_->read(
      std::vector<Entity>{entity("table_entry { table_id: 33554433 time_since_last_hit {} }")});
  EXPECT_THAT(timed.entities, IsEmpty());
  EXPECT_EQ(timed.status.error_code(), StatusCode::UNKNOWN);  // the code stands in the details
  EXPECT_THAT(timed.status.error_details(),
              HasSubstr("ports: time_since_last_hit is not known: no forwarding agent tells"));
  expectReads("table_entry { time_since_last_hit {} }",
              {first, port(2, drop + "idle_timeout_ns: 7")});
  killAgent();
  expectReads(all, {counted(first, 9), counted(port(2, drop + "idle_timeout_ns: 7"), 0)});
  for (int i = 0; i < 2; ++i) {  // the same counts are set once more
    EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, counter(0))) << said_;
  }
  EXPECT_EQ(StatusCode::OK, write(Update::DELETE, port(1, ""))) << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, port(2, drop))) << said_;
  expectReads(all, {counted(second, 0)});
  EXPECT_THAT(rowsOf("idle_timeout.ports"), Not(HasSubstr("set")));
  EXPECT_EQ(StatusCode::INVALID_ARGUMENT, write(Update::MODIFY, counter(-1)));
}

TEST_F(EntityTest, ADefaultEntryIsCounted) {
  const auto entry = [](const std::string& rest) {
    return "table_entry { table_id: 33554433 is_default_action: true " + rest + " }";
  };
  const std::string drop = "action { action { action_id: 16777217 } } ";
  const std::string query = entry("counter_data {}");
  const auto counter = [&](const std::string& data) {
    return "direct_counter_entry { " + entry("") + " data { " + data + " } }";
  };
  expectReads(query, {query});
  EXPECT_EQ(StatusCode::UNIMPLEMENTED, write(Update::MODIFY, counter("packet_count: 1")));
  EXPECT_THAT(said_, HasSubstr("ingress.ports: the program names no default action"));
  const auto counted = [&](int packets) {
    return entry(drop + "counter_data { packet_count: " + std::to_string(packets) + " }");
  };
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, counted(3))) << said_;
  expectReads(query, {counted(3)});
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, counter("packet_count: 5"))) << said_;
  const auto expectAll = [&] {
    expectReads(query, {counted(5)});
    expectReads("direct_counter_entry { table_entry { is_default_action: true } }",
                {counter("packet_count: 5")});
  };
  expectAll();
  EXPECT_THAT(rowsOf("ports.default"), HasSubstr("packets=5"));
  killAgent();
  expectAll();
  EXPECT_EQ("", push(Set::RECONCILE_AND_COMMIT));
  expectAll();
  EXPECT_EQ(StatusCode::OK, write(Update::MODIFY, entry(""))) << said_;
  expectReads(query, {query});
}

TEST_F(EntityTest, AllCellsAreSetAtOnce) {
  const std::string one = cell("counter", "index { index: 3 } data { packet_count: 1 }");
  const std::string all = cell("counter", "data { packet_count: 5 }");
  const auto write = [&](const std::vector<std::string>& texts) {
    std::vector<Update> updates;
    for (const std::string& text : texts) updates.push_back(modifyOf(entity(text)));
    return controller_->write(updates).ok();
  };
  const auto counts = [&] {
    std::vector<int64_t> found;
    const auto read = controller_->read(std::vector<Entity>{entity(cell("counter", ""))});
    for (const Entity& cell : read.entities) {
      found.push_back(cell.counter_entry().data().packet_count());
    }
    return found;
  };
  EXPECT_TRUE(write({one}));
  EXPECT_EQ((std::vector<int64_t>{0, 0, 0, 1, 0, 0, 0, 0}), counts());
  EXPECT_TRUE(write({one, all}));
  EXPECT_EQ((std::vector<int64_t>(8, 5)), counts());
  EXPECT_TRUE(write({all, one}));
  EXPECT_EQ((std::vector<int64_t>{5, 5, 5, 1, 5, 5, 5, 5}), counts());
  killAgent();
  EXPECT_EQ((std::vector<int64_t>{5, 5, 5, 1, 5, 5, 5, 5}), counts());

  EXPECT_TRUE(
      write({cell("meter", "config { " + rates + " }"), cell("meter", "index { index: 1 }")}));
  const std::string set = "config { " + rates + " }";
  expectReads(
      cell("meter", ""),
      {cell("meter", "index { index: 0 } " + set), cell("meter", "index { index: 1 }"),
       cell("meter", "index { index: 2 } " + set), cell("meter", "index { index: 3 } " + set)});
  EXPECT_TRUE(write({cell("meter", "")}));
  expectReads(cell("meter", "index { index: 3 }"), {cell("meter", "index { index: 3 }")});
}

TEST_F(EntityTest, WhatFailsLeavesThemAsTheyWere) {
  const std::string before = group(7, "replicas { egress_port: 1 }");
  const std::string counted = cell("counter", "index { index: 1 } data { packet_count: 7 }");
  ASSERT_EQ(StatusCode::OK, write(Update::INSERT, before)) << said_;
  ASSERT_EQ(StatusCode::OK, write(Update::MODIFY, counted)) << said_;
  const std::string list = "pre.multicast_group.replica";
  const std::string rows = rowsOf(list);
  const std::string ofAllCells = rowsOf("counter.hits.default");
  const auto expectUnchanged = [&] {
    expectReads(group(0), {before});
    expectReads(session(0), {});
    expectReads(cell("counter", "index { index: 1 }"), {counted});
    EXPECT_EQ(rowsOf(list), rows);
    EXPECT_EQ(rowsOf("counter.hits.default"), ofAllCells);
  };
  // The forwarding plane takes the group, but not its replica.
  ASSERT_EQ(forwarder_.ctl({"fail-table", list}).exit.code, 0);
  EXPECT_NE(StatusCode::OK, write(Update::MODIFY, group(7, "replicas { egress_port: 2 }")));
  EXPECT_THAT(said_, HasSubstr("multicast group 7"));
  expectUnchanged();
  ASSERT_EQ(forwarder_.ctl({"clear"}).exit.code, 0);

  p4::v1::WriteRequest whole = controller_->writeRequest(
      {insertOf(entity(session(5, "replicas { egress_port: 1 }"))),
       modifyOf(entity(cell("counter", "data { packet_count: 5 }"))),
       modifyOf(entity(group(7, "replicas { egress_port: 2 }"))), insertOf(entity(group(7)))});
  whole.set_atomicity(p4::v1::WriteRequest::ROLLBACK_ON_ERROR);
  const WriteOutcome outcome = controller_->write(whole);
  EXPECT_EQ(outcome.code(0), StatusCode::ABORTED);
  EXPECT_EQ(outcome.code(3), StatusCode::ALREADY_EXISTS);
  expectUnchanged();
  whole.mutable_updates()->RemoveLast();
  EXPECT_TRUE(controller_->write(whole).ok());
  expectReads(session(0), {session(5, "replicas { egress_port: 1 }")});
  expectReads(cell("counter", "index { index: 1 }"),
              {cell("counter", "index { index: 1 } data { packet_count: 5 }")});
}

// Off unless it is asked for: a plane may have ports beside the mapped ones.
TEST_F(EntityTest, PortsOfReplicasAreHeldAgainstThoseThatAreMapped) {
  const auto set = [&](const char* attribute, const char* value) {
    EXPECT_EQ(agent_.korvel({"set", "p4runtime/config/agent", attribute, value}).exit.code, 0);
  };
  const auto to = [](int id, const std::string& port) {
    return group(id, "replicas { egress_port: " + port + " }");
  };
  set("checkPorts", "true");
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, to(1, "9"))) << "none is mapped: " << said_;
  EXPECT_EQ(agent_.korvel({"port", "map", "4", "eth-four"}).exit.code, 0);
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, to(2, "4"))) << said_;
  EXPECT_EQ(StatusCode::INVALID_ARGUMENT, write(Update::INSERT, to(3, "9")));
  EXPECT_EQ(said_, "multicast group 3: the switch has no port 9, which a replica names");
  EXPECT_EQ(StatusCode::INVALID_ARGUMENT,
            write(Update::INSERT, session(3, R"(replicas { port: "\001\376" })")));
  EXPECT_THAT(said_, HasSubstr("clone session 3: the switch has no port 510"));
  set("cpuPort", "510");
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, session(3, R"(replicas { port: "\001\376" })")))
      << said_;
  EXPECT_EQ(StatusCode::OK, write(Update::DELETE, group(1))) << said_;
  set("checkPorts", "false");
  EXPECT_EQ(StatusCode::OK, write(Update::INSERT, to(3, "9"))) << said_;
}

TEST_F(EntityTest, WatchPortsStandInRowsOfTheGroupsAndMembersThatHaveThem) {
  const auto set = [](const std::string& first, const std::string& second) {
    const std::string drop = "action_profile_actions { action { action_id: 16777217 } weight: 1 ";
    return "table_entry { table_id: 33554434 match { field_id: 1 exact { value: \"\\001\" } } "
           "action { action_profile_action_set { " +
           drop + first + " } " + drop + second + " } } } }";
  };
  const std::string list = "hops.watch";
  ASSERT_EQ(StatusCode::OK, write(Update::INSERT, set("watch_port: \"\\005\"", "watch: 6")))
      << said_;
  const std::string rows = rowsOf(list);
  EXPECT_THAT(rows,
              HasSubstr("group_id=0x00000001 member_id=0x00000001 -> action=set port=0x00000005"));
  EXPECT_THAT(rows,
              HasSubstr("group_id=0x00000001 member_id=0x00000002 -> action=set port=0x00000006"));
  EXPECT_THAT(rowsOf("hops.group"), HasSubstr("group 1 (one-shot): members 1 x1, 2 x1"));
  const auto expectUnchanged = [&] {
    EXPECT_EQ(rowsOf(list), rows);
    expectReads("table_entry { table_id: 33554434 }", {set("watch_port: \"\\005\"", "watch: 6")});
  };
  killAgent();
  expectUnchanged();
  EXPECT_EQ("", push(Set::RECONCILE_AND_COMMIT));
  expectUnchanged();
  ASSERT_EQ(forwarder_.ctl({"fail-table", list}).exit.code, 0);
  EXPECT_NE(StatusCode::OK, write(Update::MODIFY, set("watch: 7", "watch: 8")));
  expectUnchanged();
  ASSERT_EQ(forwarder_.ctl({"clear"}).exit.code, 0);
  ASSERT_EQ(StatusCode::OK, write(Update::MODIFY, set("", "watch: 8"))) << said_;
  EXPECT_THAT(rowsOf(list), HasSubstr("8"));
  ASSERT_EQ(StatusCode::OK, write(Update::DELETE, set("", ""))) << said_;
  EXPECT_THAT(rowsOf(list), Not(HasSubstr("set")));
}

TEST_F(EntityTest, WhatCannotBeIsRefusedByName) {
  ASSERT_EQ(StatusCode::OK, write(Update::INSERT, group(1)));
  const struct {
    Update::Type type;
    std::string given;
    StatusCode code;
    std::string says;
  } cases[] = {
      {Update::INSERT, group(1), StatusCode::ALREADY_EXISTS, "multicast group 1"},
      {Update::MODIFY, group(2), StatusCode::NOT_FOUND, "multicast group 2"},
      {Update::DELETE, session(2), StatusCode::NOT_FOUND, "clone session 2"},
      {Update::INSERT, group(0), StatusCode::INVALID_ARGUMENT, "multicast group id is 0"},
      {Update::INSERT, group(3, "replicas {}"), StatusCode::INVALID_ARGUMENT, "no port"},
      {Update::INSERT, group(3, "replicas { port: \"\\001\\002\\003\\004\\005\" }"),
       StatusCode::INVALID_ARGUMENT, "wider than 32 bits"},
      {Update::INSERT, group(3, "replicas { egress_port: 1 } replicas { port: \"\\000\\001\" }"),
       StatusCode::INVALID_ARGUMENT, "same port and instance"},
      {Update::INSERT, group(3, "replicas { egress_port: 1 backup_replicas { port: \"2\" } }"),
       StatusCode::UNIMPLEMENTED, "backup replicas"},
      {Update::INSERT, session(3, "packet_length_bytes: -1"), StatusCode::INVALID_ARGUMENT,
       "packet_length_bytes"},
      {Update::INSERT, cell("counter", "index { index: 1 }"), StatusCode::INVALID_ARGUMENT,
       "use MODIFY"},
      {Update::MODIFY, cell("counter", "index { index: 8 } data {}"), StatusCode::OUT_OF_RANGE,
       "8 cells"},
      {Update::MODIFY, cell("counter", "index { index: 1 } data { byte_count: -1 }"),
       StatusCode::INVALID_ARGUMENT, "negative"},
      {Update::MODIFY, cell("meter", "index { index: 1 } config { cir: 5 pir: 4 }"),
       StatusCode::INVALID_ARGUMENT, "meter ingress.rates: pir is 4"},
      {Update::MODIFY, cell("register", "index { index: 1 }"), StatusCode::INVALID_ARGUMENT,
       "bitstring"},
      {Update::MODIFY,
       cell("register",
            "index { index: 1 } data { bitstring: \"\\001\\000\\000\\000\\000\\000\\000\" }"),
       StatusCode::INVALID_ARGUMENT, "48 bits"},
      {Update::MODIFY,
       "value_set_entry { value_set_id: 50331649 members { match { field_id: 1 ternary { value: "
       "\"\\001\" mask: \"\\001\" } } } }",
       StatusCode::INVALID_ARGUMENT, "vlan"},
      {Update::INSERT, "digest_entry { digest_id: 385875969 config { max_list_size: -1 } }",
       StatusCode::INVALID_ARGUMENT, "negative"},
      {Update::INSERT, "digest_entry { digest_id: 5 }", StatusCode::INVALID_ARGUMENT, "not in"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.code, write(c.type, c.given)) << c.given;
    EXPECT_THAT(said_, HasSubstr(c.says)) << c.given;
  }
  // A table that holds an entity's rows is no table of the program.
  EXPECT_EQ(StatusCode::INVALID_ARGUMENT,
            write(Update::INSERT, "table_entry { table_id: 1593835521 }"));
  expectReads(group(0), {group(1)});
}

// A pipeline file brings entities as rows of their tables.
TEST(ConstantEntityTest, ComeWithThePipelineAndStay) {
  const TempDir directory;
  const std::string file = directory.file("pipeline");
  std::ofstream(directory.file("p4info")) << program;
  std::ofstream(directory.file("entries")) << R"([
    {"table": "pre.multicast_group", "match": {"multicast_group_id": 7}, "action": "group"},
    {"table": "pre.multicast_group.replica", "action": "row",
     "match": {"multicast_group_id": 7, "egress_port": 1, "instance": 5}},
    {"table": "pre.multicast_group.replica", "action": "row",
     "match": {"multicast_group_id": 7, "egress_port": 258, "instance": 0}},
    {"table": "pre.clone_session", "match": {"session_id": 500}, "action": "session",
     "params": {"class_of_service": 3, "packet_length_bytes": 128}},
    {"table": "pre.clone_session.replica", "action": "row",
     "match": {"session_id": 500, "egress_port": 510, "instance": 0}},
    {"table": "value_set.types", "match": {"entry": 0}, "action": "set", "params": {"members": 1}},
    {"table": "value_set.types.member", "match": {"ether_type": 2048, "vlan": 3}, "action": "row",
     "priority": 1},
    {"table": "register.seen", "match": {"index": 2}, "action": "set",
     "params": {"value": 258, "times": 0}},
    {"table": "meter.rates", "match": {"index": 1}, "action": "set",
     "params": {"cir": 1, "cburst": 2, "pir": 3, "pburst": 4, "eburst": 0}}
  ])";
  const CommandResult built =
      run({binaryPath("korvel"), "pipeline", "build", "--p4info", directory.file("p4info"),
           "--entries", directory.file("entries"), "--device-id", "1", "-o", file});
  ASSERT_EQ(built.exit.code, 0) << built.output;
  AgentProcess agent({.stateDirectory = directory.file("state"), .pipelineFile = file});
  ForwarderProcess forwarder(directory.file("state"));
  forwarder.start();
  for (uint64_t electionId = 1; electionId <= 2; ++electionId) {
    agent.start();
    ASSERT_TRUE(agent.waitServing()) << agent.output();
    ASSERT_TRUE(forwarder.waitAttached());
    TestController controller(agent.address(), electionId);
    ASSERT_TRUE(controller.waitConnected(std::chrono::seconds(10)));
    ASSERT_TRUE(controller.becomePrimary());
    const auto codeOf = [&](Update::Type type, const std::string& text) {
      return controller.write({updateOf(type, entity(text))}).code(0);
    };
    const std::vector<std::string> all = {
        group(7, R"(replicas { port: "\001" instance: 5 } replicas { port: "\001\002" })"),
        session(500, R"(replicas { port: "\001\376" }
                        class_of_service: 3 packet_length_bytes: 128)"),
        R"(value_set_entry { value_set_id: 50331649 members {
             match { field_id: 1 ternary { value: "\010\000" mask: "\377\377" } }
             match { field_id: 2 exact { value: "\003" } } } })",
        cell("register", R"(index { index: 2 } data { bitstring: "\001\002" })"),
        cell("meter", "index { index: 1 } config { " + rates + " }")};
    const std::vector<std::string> queries = {
        group(7), session(500), "value_set_entry { value_set_id: 50331649 }",
        cell("register", "index { index: 2 }"), cell("meter", "index { index: 1 }")};
    for (size_t i = 0; i < all.size(); ++i) {
      const EntitiesOutcome read = controller.read(std::vector<Entity>{entity(queries[i])});
      ASSERT_EQ(read.entities.size(), 1u) << queries[i];
      EXPECT_EQ(read.entities[0].ShortDebugString(), entity(all[i]).ShortDebugString());
    }
    EXPECT_EQ(codeOf(Update::DELETE, group(7)), StatusCode::PERMISSION_DENIED);
    EXPECT_EQ(codeOf(Update::MODIFY, all[1]), StatusCode::PERMISSION_DENIED);
    EXPECT_EQ(codeOf(Update::MODIFY, cell("meter", "")), StatusCode::PERMISSION_DENIED);
    EXPECT_EQ(codeOf(Update::INSERT, group(8)),
              electionId == 1 ? StatusCode::OK : StatusCode::ALREADY_EXISTS);
    agent.kill();
  }
}

}  // namespace
