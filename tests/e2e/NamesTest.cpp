// Strings of translated types: numbers fixed by the configuration, people's views, pushes that keep
// entries, and an agent that is killed while names come and go.
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "tests/e2e/Switch.h"

using google::protobuf::util::MessageDifferencer;
using p4::v1::TableEntry;
using testing::HasSubstr;
using testing::Not;
using namespace TestSupport;

namespace {

using Set = p4::v1::SetForwardingPipelineConfigRequest;

constexpr uint32_t neighborTable = 0x02000001;
constexpr char p4Info[] = R"(
  pkg_info { arch: "v1model" }
  tables {
    preamble { id: 0x02000001 name: "neighbor" alias: "neighbor" }
    match_fields { id: 1 name: "port" match_type: EXACT type_name { name: "port_t" } }
    match_fields { id: 2 name: "vrf" match_type: OPTIONAL type_name { name: "vrf_t" } }
    action_refs { id: 0x01000001 } size: 100000
  }
  actions {
    preamble { id: 0x01000001 name: "to" alias: "to" }
    params { id: 1 name: "port" type_name { name: "port_t" } }
  }
  type_info {
    new_types { key: "port_t" value { translated_type { sdn_string { } } } }
    new_types { key: "vrf_t" value { translated_type { sdn_string { } } } }
  }
)";

TableEntry neighbor(const std::string& port, const std::string& vrf, const std::string& to) {
  TableEntry entry;
  entry.set_table_id(neighborTable);
  entry.set_priority(1);
  auto* match = entry.add_match();
  match->set_field_id(1);
  match->mutable_exact()->set_value(port);
  match = entry.add_match();
  match->set_field_id(2);
  match->mutable_optional()->set_value(vrf);
  auto* action = entry.mutable_action()->mutable_action();
  action->set_action_id(0x01000001);
  action->add_params()->set_param_id(1);
  action->mutable_params(0)->set_value(to);
  return entry;
}

class NamesTest : public testing::Test {
 protected:
  explicit NamesTest(const std::string& constantEntries = "[]") {
    std::ofstream(directory_.file("p4info.txtpb")) << p4Info;
    std::ofstream(directory_.file("entries.json")) << constantEntries;
    const auto built =
        run({binaryPath("korvel"), "pipeline", "build", "--p4info", directory_.file("p4info.txtpb"),
             "--entries", directory_.file("entries.json"), "--device-id", "1", "--output",
             directory_.file("built.pb.bin")});
    EXPECT_EQ(built.exit.code, 0) << built.error;
    switch_.emplace(Switch::Options{.pipelineFile = directory_.file("built.pb.bin")});
  }
  void SetUp() override { ASSERT_TRUE(switch_->start()); }

  std::string output(const std::vector<std::string>& command) const {
    const auto result = switch_->agent.korvel(command);
    return result.output + result.error;
  }
  std::string dump(const std::string& table) const { return output({"table", "dump", table}); }
  void namesAre(const std::string& names) {
    EXPECT_EQ(output({"set", "p4runtime/config/translation/port_t", "names", names}), "");
  }
  std::vector<TableEntry> entries() { return switch_->controller().readTable(0).entries; }
  void expectStands(const TableEntry& entry) {
    const auto found = entries();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(MessageDifferencer::Equals(found[0], entry)) << found[0].ShortDebugString();
  }

  const TempDir directory_;
  std::optional<Switch> switch_;
};

TEST_F(NamesTest, HaveTheNumbersOfTheConfigurationAndStandInViews) {
  namesAre("Ethernet0=1 Ethernet4=4 odd Ethernet8=4");
  EXPECT_THAT(output({"status"}), HasSubstr("port_t odd refused: it is not of the form"));
  EXPECT_THAT(output({"status"}), HasSubstr("Ethernet8=4 refused: the number stands there twice"));
  const TableEntry entry = neighbor("Ethernet0", "red", "Ethernet4");
  ASSERT_TRUE(switch_->write({insertOf(entry)}).ok());
  expectStands(entry);
  EXPECT_THAT(dump("translation.port_t"), HasSubstr(R"(number=0x00000001 -> name="Ethernet0")"));
  EXPECT_THAT(dump("neighbor"), HasSubstr(R"(port="Ethernet0" vrf="red")"));
  EXPECT_THAT(dump("neighbor"), HasSubstr(R"(port="Ethernet4")"));
  EXPECT_THAT(output({"table", "dump", "--json", "neighbor"}), HasSubstr(R"(Ethernet4)"));

  namesAre("Ethernet0=2");
  EXPECT_THAT(output({"status"}), HasSubstr("Ethernet0=2 refused: the name is in use"));
  ASSERT_TRUE(switch_->restartAgent());  // without the setting
  EXPECT_THAT(output({"status"}), Not(HasSubstr("Ethernet0=2 refused")));
  expectStands(entry);
  EXPECT_THAT(dump("translation.port_t"), HasSubstr(R"(number=0x00000004 -> name="Ethernet4")"));
  ASSERT_TRUE(switch_->write({deleteOf(entry)}).ok());
  EXPECT_THAT(dump("translation.port_t"), HasSubstr("(0 rows)"));
}

class ConstantNamesTest : public NamesTest {
 protected:
  ConstantNamesTest()
      : NamesTest(R"([{"table": "neighbor", "match": {"port": "cpu", "vrf": "red"}, "priority": 1,
                       "action": "to", "params": {"port": "drop"}}])") {}
};

TEST_F(ConstantNamesTest, AreTheSameForEntriesOfControllers) {
  const auto shown =
      run({binaryPath("korvel"), "pipeline", "show", directory_.file("built.pb.bin")});
  EXPECT_THAT(shown.output, HasSubstr("cpu"));
  TableEntry constant = neighbor("cpu", "red", "drop");
  constant.set_is_const(true);
  expectStands(constant);
  const TableEntry entry = neighbor("drop", "red", "cpu");
  ASSERT_TRUE(switch_->write({insertOf(entry)}).ok());
  EXPECT_THAT(dump("translation.port_t"), HasSubstr("(2 rows)"));
  ASSERT_TRUE(switch_->restartAgent());
  EXPECT_EQ(entries().size(), 2u);
  ASSERT_TRUE(switch_->write({deleteOf(entry)}).ok());
  expectStands(constant);
  EXPECT_THAT(dump("translation.port_t"), HasSubstr("(2 rows)"));
}

TEST_F(NamesTest, StayWithTheirEntriesWhenAPushKeepsThem) {
  const TableEntry entry = neighbor("a", "red", std::string(300, 'b'));
  ASSERT_TRUE(switch_->write({insertOf(entry)}).ok());
  const auto push = [&](const std::string& more) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(switch_->electionId());
    request.set_action(Set::RECONCILE_AND_COMMIT);
    auto& program = *request.mutable_config()->mutable_p4info();
    google::protobuf::TextFormat::ParseFromString(p4Info, &program);
    p4::config::v1::P4Info added;
    google::protobuf::TextFormat::ParseFromString(more, &added);
    program.MergeFrom(added);
    grpc::ClientContext context;
    p4::v1::SetForwardingPipelineConfigResponse response;
    return switch_->controller().stub().SetForwardingPipelineConfig(&context, request, &response);
  };
  // One more type, whose table takes its place among the others.
  const grpc::Status pushed = push(R"(
    tables {
      preamble { id: 0x02000002 name: "tunnel" alias: "tunnel" }
      match_fields { id: 1 name: "id" match_type: EXACT type_name { name: "tunnel_t" } }
      action_refs { id: 0x01000001 } size: 10
    }
    type_info {
      new_types { key: "tunnel_t" value { translated_type { sdn_string { } } } }
    })");
  ASSERT_TRUE(pushed.ok()) << pushed.error_message();
  expectStands(entry);
  ASSERT_TRUE(switch_->restartAgent());
  expectStands(entry);
  ASSERT_TRUE(switch_->write({deleteOf(entry)}).ok());
  EXPECT_THAT(dump("translation.port_t"), HasSubstr("(0 rows)"));
}

TEST_F(NamesTest, AreAllThereAfterKills) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    std::atomic<bool> stops = false;
    std::thread writer([&, seed = random()] {
      std::mt19937 mine(seed);
      while (!stops) {
        std::vector<p4::v1::Update> updates;
        for (int i = 0; i < 20; ++i) {
          const std::string port = "port" + std::to_string(mine() % 200);
          const TableEntry entry = neighbor(port, "vrf", "to" + std::to_string(mine() % 50));
          updates.push_back(mine() % 2 != 0 ? insertOf(entry) : deleteOf(entry));
        }
        switch_->controller().write(updates, std::chrono::milliseconds(500));
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 300));
    switch_->agent.kill();
    stops = true;
    writer.join();
    ASSERT_TRUE(switch_->restartAgent());
    for (const TableEntry& entry : entries()) {
      EXPECT_EQ(entry.match(0).exact().value().substr(0, 4), "port");
      EXPECT_EQ(entry.match(1).optional().value(), "vrf");
      EXPECT_EQ(entry.action().action().params(0).value().substr(0, 2), "to");
    }
  }
  std::vector<p4::v1::Update> deletions{insertOf(neighbor("last", "vrf", "to"))};
  for (const TableEntry& entry : entries()) deletions.push_back(deleteOf(entry));
  deletions.push_back(deleteOf(neighbor("last", "vrf", "to")));
  EXPECT_TRUE(switch_->write(deletions).ok());
  EXPECT_THAT(dump("translation.port_t"), HasSubstr("(0 rows)"));
  EXPECT_THAT(dump("translation.vrf_t"), HasSubstr("(0 rows)"));
}

}  // namespace
