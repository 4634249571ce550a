// Controllers that push pipelines: their first calls, refusals, and an agent that is killed
// meanwhile.
#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "p4/tmp/p4config.pb.h"
#include "platform/vela/Json.h"
#include "tests/e2e/PushFixture.h"

using google::protobuf::util::MessageDifferencer;
using p4::v1::TableEntry;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace TestSupport;

namespace {

const std::string programJson = R"({"program": "router.p4", "__meta__": {"version": [2, 23]}})";

std::string wrapped(const std::string& program) {
  p4::tmp::P4DeviceConfig device;
  device.set_reassign(true);
  device.set_device_data(program);
  return device.SerializeAsString();
}

// As an interactive shell does it, with each form of device configuration.
TEST_F(PushTest, AShellPushesWritesReadsAndDeletes) {
  EXPECT_THAT(agent_.korvel({"status"}).output, HasSubstr("NONE YET"));
  EXPECT_FALSE(get().has_config());
  const WriteOutcome early = insertRoutes(0, 1);
  EXPECT_EQ(early.status.error_code(), grpc::FAILED_PRECONDITION);
  EXPECT_THAT(early.status.error_message(), HasSubstr("No forwarding pipeline config"));
  EXPECT_EQ(controller_->readTable(0).status.error_code(), grpc::FAILED_PRECONDITION);

  const std::string opaque("\x0a\x04name\x12\x02{}\x00", 11);
  const std::string devices[] = {"",     programJson,          wrapped(programJson),
                                 opaque, std::string(1, '\0'), wrapped("")};
  for (const std::string& device : devices) {
    SCOPED_TRACE(testing::PrintToString(device));
    const Config pushed = config(device);
    EXPECT_CODE(push(pushed), OK);
    expectRuns(pushed);
    EXPECT_THAT(entries(), IsEmpty());
    ASSERT_TRUE(insertRoutes(0, 3).ok());
    const std::vector<TableEntry> found = entries();
    EXPECT_THAT(found, SizeIs(3));
    EXPECT_TRUE(controller_->write({deleteOf(found[0])}).ok());
    EXPECT_EQ(disagreement(), "");
  }
  restart();
  expectRuns(config(devices[5]));
  EXPECT_THAT(entries(), SizeIs(2));
  EXPECT_EQ(disagreement(), "");
}

// As a controller does it that compares cookies and clears everything.
TEST_F(PushTest, AComparerPushesByTheCookie) {
  EXPECT_FALSE(get(Get::COOKIE_ONLY).has_config());
  Config pushed = config(programJson);
  pushed.mutable_cookie()->set_cookie(0x1122334455667788);
  ASSERT_TRUE(push(pushed).ok());
  const struct {
    Get::ResponseType type;
    bool p4Info, device;
  } parts[] = {{Get::COOKIE_ONLY, false, false},
               {Get::P4INFO_AND_COOKIE, true, false},
               {Get::DEVICE_CONFIG_AND_COOKIE, false, true}};
  for (const auto& part : parts) {
    Config expected = pushed;
    if (!part.p4Info) expected.clear_p4info();
    if (!part.device) expected.clear_p4_device_config();
    EXPECT_TRUE(MessageDifferencer::Equals(get(part.type).config(), expected)) << part.type;
  }
  p4::v1::Entity groups;
  groups.mutable_packet_replication_engine_entry()->mutable_multicast_group_entry();
  p4::v1::Entity clones;
  clones.mutable_packet_replication_engine_entry()->mutable_clone_session_entry();
  const EntitiesOutcome all = controller_->read({entityOf(TableEntry()), groups, clones});
  EXPECT_TRUE(all.status.ok()) << all.status.error_message();
  EXPECT_THAT(all.entities, IsEmpty());
  EXPECT_TRUE(
      controller_
          ->read({entityOf(p4::v1::ActionProfileGroup()), entityOf(p4::v1::ActionProfileMember())})
          .status.ok());
  std::vector<p4::v1::Update> resets;
  for (const auto& table : router_.p4info().tables()) {
    if (table.const_default_action_id() != 0 || table.implementation_id() != 0) continue;
    TableEntry reset;
    reset.set_table_id(table.preamble().id());
    reset.set_is_default_action(true);
    resets.push_back(modifyOf(reset));
  }
  const WriteOutcome reset = controller_->write(resets);
  EXPECT_TRUE(reset.ok()) << testing::PrintToString(reset);
  EXPECT_TRUE(controller_->write(std::vector<p4::v1::Update>()).ok());
  Config zero = config(programJson);
  zero.mutable_cookie()->set_cookie(0);
  ASSERT_TRUE(push(zero).ok());
  EXPECT_TRUE(get(Get::COOKIE_ONLY).config().has_cookie());
}

// Programs as public projects ship them, where they lie beside the tree, in turns with others.
TEST_F(PushTest, EveryPublicProgramIsTaken) {
  const std::filesystem::path directory(KORVEL_PROGRAMS);
  if (!std::filesystem::is_directory(directory)) GTEST_SKIP() << "no programs in " << directory;
  for (const auto& file : std::filesystem::directory_iterator(directory / "p4info")) {
    const std::string name = file.path().filename().string();
    SCOPED_TRACE(name);
    const std::string built = directory_.file("built");
    const CommandResult build = run({binaryPath("korvel"), "pipeline", "build", "--p4info",
                                     file.path().string(), "--device-id", "1", "-o", built});
    ASSERT_EQ(build.exit.code, 0) << build.error;
    Config pushed;
    *pushed.mutable_p4info() = TestSupport::Pipeline(built).p4info();
    const auto json = directory / "json" / (name.substr(0, name.find('.')) + ".json");
    if (std::filesystem::exists(json)) {
      pushed.set_p4_device_config(fileText(json.string()));
    }
    EXPECT_CODE(push(pushed), OK);
    expectRuns(pushed);
    EXPECT_TRUE(controller_->readTable(0).status.ok());
  }
  EXPECT_EQ(controller_->arbitrate(), grpc::OK);
}

TEST_F(PushTest, AProgramMayHaveNoTables) {
  Config bare;
  bare.mutable_p4info()->mutable_pkg_info()->set_arch("v1model");
  EXPECT_CODE(push(bare), OK);
  expectRuns(bare);
  EXPECT_TRUE(controller_->readTable(0).status.ok());
  restart();
  expectRuns(bare);
  EXPECT_CODE(push(config()), OK);
  EXPECT_TRUE(insertRoutes(0, 3).ok());
  EXPECT_CODE(push(bare, Set::RECONCILE_AND_COMMIT), INVALID_ARGUMENT);
  EXPECT_CODE(push(bare), OK);
  EXPECT_EQ(disagreement(), "");
}

TEST_F(PushTest, RefusedOnesChangeNothing) {
  const Config running = config();
  ASSERT_TRUE(push(running).ok());
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  Config twice = config();
  *twice.mutable_p4info()->add_tables() = twice.p4info().tables(0);
  EXPECT_CODE(push(twice), INVALID_ARGUMENT);
  EXPECT_CODE(push(twice, Set::VERIFY), INVALID_ARGUMENT);
  EXPECT_CODE(push(Config()), INVALID_ARGUMENT);
  EXPECT_CODE(pushOf(electionId_, Set::VERIFY_AND_COMMIT, nullptr), INVALID_ARGUMENT);
  EXPECT_CODE(pushOf(electionId_, Set::COMMIT, &running), INVALID_ARGUMENT);
  EXPECT_CODE(commit(), NOT_FOUND);
  EXPECT_CODE(pushOf(electionId_ + 1, Set::VERIFY_AND_COMMIT, &running), PERMISSION_DENIED);
  expectRuns(running);
  EXPECT_THAT(entries(), SizeIs(10));
  EXPECT_TRUE(insertRoutes(10, 11).ok());
}

// Such a query failed the pipeline once the former entries had gone, if another query came behind
// it: the former pipeline came up again, empty. It fails itself alone.
TEST_F(PushTest, QueriesThatCannotBeEvaluatedTakeNoPipelineDown) {
  ASSERT_TRUE(push(config()).ok());
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  p4::tmp::P4DeviceConfig built;
  TestSupport::Pipeline file(KORVEL_ROUTER_PIPELINE);
  ASSERT_TRUE(built.ParseFromString(file.request().config().p4_device_config()));
  const Vela::Json device = Vela::parseJson(built.device_data());
  cJSON* root = cJSON_GetObjectItem(device.get(), "p4rtc");
  cJSON* type = Vela::addObjectTo(cJSON_GetObjectItem(root, "table_type_definitions"));
  Vela::addString(type, "table_type", "One");
  Vela::addString(type, "table_type_def", "key n : U32;");
  cJSON_DeleteItemFromObject(root, "queries");
  cJSON* queries = Vela::addArray(root, "queries");
  const auto add = [&](const char* path, const char* text, const char* input) {
    cJSON* query = Vela::addObjectTo(queries);
    Vela::addString(query, "output_table_path", path);
    Vela::addString(query, "output_table_type", "One");
    Vela::addString(query, "query", text);
    cJSON* inputs = Vela::addArray(query, "input_tables");
    if (!*input) return;
    cJSON* pair = Vela::addObjectTo(inputs);
    Vela::addString(pair, "table_key", "t");
    Vela::addString(pair, "table_value", input);
  };
  add("a_fails", "SELECT abs(-9223372036854775807 - 1) AS n", "");
  add("b_reads_it", "SELECT n FROM t", "a_fails");
  add("c_is_well", "SELECT 5 AS n", "");
  const Config pushed = config(Vela::jsonBytes(*device));
  const grpc::Status taken = push(pushed);
  ASSERT_TRUE(taken.ok()) << taken.error_message();
  expectRuns(pushed);
  EXPECT_TRUE(insertRoutes(0, 3).ok());
  const std::string status = agent_.korvel({"status"}).output;
  EXPECT_THAT(status, HasSubstr("integer overflow"));
  restart();
  expectRuns(pushed);
}

// Pushes of all actions, Writes and restarts, and what must stand after each.
TEST_F(PushTest, InAnyOrderNothingIsLost) {
  struct Program {
    Config config;
    uint32_t room = 0;  // for routes
  };
  Config bare;
  bare.mutable_p4info();
  const Program programs[] = {
      {config(), 10000}, {config(programJson, 20000), 20000}, {config("small", 6), 6}, {bare, 0}};
  std::mt19937 random(4711);
  const Program* running = nullptr;
  const Program* saved = nullptr;
  uint32_t routes = 0;
  for (int step = 0; step < 200; ++step) {
    SCOPED_TRACE(step);
    const Program& next = programs[random() % std::size(programs)];
    switch (random() % 7) {
      case 0:
        EXPECT_CODE(push(next.config, Set::VERIFY), OK);
        break;
      case 1:
        EXPECT_CODE(push(next.config, Set::VERIFY_AND_SAVE), OK);
        saved = &next;
        break;
      case 2: {
        const grpc::Status status = commit();
        EXPECT_EQ(status.error_code(), saved ? grpc::OK : grpc::NOT_FOUND);
        if (saved) {
          running = std::exchange(saved, nullptr);
          routes = 0;
        }
        break;
      }
      case 3:
        EXPECT_CODE(push(next.config), OK);
        running = &next;
        saved = nullptr;
        routes = 0;
        break;
      case 4: {
        const bool fits = routes <= next.room;
        const grpc::Status status = push(next.config, Set::RECONCILE_AND_COMMIT);
        EXPECT_EQ(status.error_code(), fits ? grpc::OK : grpc::INVALID_ARGUMENT)
            << status.error_message();
        if (fits) {
          running = &next;
          saved = nullptr;
        }
        break;
      }
      case 5:
        if (!running || running->room < routes + 2) break;
        EXPECT_TRUE(insertRoutes(routes, routes + 2).ok());
        routes += 2;
        break;
      case 6:
        if (!running || random() % 5 != 0) break;
        restart();
        saved = nullptr;
        break;
    }
    if (!running) continue;
    expectRuns(running->config);
    ASSERT_THAT(entries(), SizeIs(routes));
  }
  EXPECT_EQ(disagreement(), "");
}

// Constant ones stay whatever a controller does; initial ones are there once.
TEST_F(PushTest, EntriesOfTheProgramComeWithIt) {
  constexpr const char* program = R"({"actions": [{"name": "ingress.set_vrf", "id": 1}],
   "pipelines": [{"tables": [{"name": "ingress.port",
     "key": [{"match_type": "exact", "name": "ingress_port"}],
     "entries": [
      {"match_key": [{"match_type": "exact", "key": "0x0001"}], "priority": 1,
       "action_entry": {"action_id": 1, "action_data": ["0x0007"]}},
      {"match_key": [{"match_type": "exact", "key": "0x0002"}], "priority": 2,
       "action_entry": {"action_id": 1, "action_data": ["0x0008"]}}]}]}]})";
  ASSERT_TRUE(push(config(program)).ok());
  const std::vector<TableEntry> constant = entries();
  ASSERT_THAT(constant, SizeIs(2));
  for (const TableEntry& entry : constant) {
    EXPECT_TRUE(entry.is_const());
    TableEntry mine = entry;
    mine.clear_is_const();
    EXPECT_EQ(controller_->write({deleteOf(mine)}).code(0), grpc::PERMISSION_DENIED);
    EXPECT_EQ(controller_->write({modifyOf(mine)}).code(0), grpc::PERMISSION_DENIED);
  }
  restart();
  EXPECT_THAT(entries(), SizeIs(2));
  EXPECT_EQ(disagreement(), "");

  Config initial = config(program);
  initial.mutable_p4info()->mutable_tables(0)->set_has_initial_entries(true);
  ASSERT_TRUE(push(initial).ok());
  const std::vector<TableEntry> open = entries();
  ASSERT_THAT(open, SizeIs(2));
  EXPECT_FALSE(open[0].is_const());
  EXPECT_TRUE(controller_->write({deleteOf(open[0])}).ok());
  restart();
  EXPECT_THAT(entries(), SizeIs(1)) << "a deleted one does not come again by itself";
  EXPECT_EQ(disagreement(), "");
  ASSERT_TRUE(push(initial, Set::RECONCILE_AND_COMMIT).ok());
  EXPECT_THAT(entries(), SizeIs(1));
  ASSERT_TRUE(push(initial).ok());
  EXPECT_THAT(entries(), SizeIs(2));
}

// A push that leaves something out is refused where the operator wants it so, and a controller that
// verifies hears of the entries in the way.
TEST_F(PushTest, VerifyingAndStrictness) {
  ASSERT_TRUE(push(config()).ok());
  ASSERT_TRUE(insertRoutes(0, 8).ok());
  const auto verified = [this](const Config& config) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(electionId_);
    request.set_action(Set::VERIFY);
    *request.mutable_config() = config;
    grpc::ClientContext context;
    p4::v1::SetForwardingPipelineConfigResponse response;
    const auto status =
        controller_->stub().SetForwardingPipelineConfig(&context, request, &response);
    EXPECT_TRUE(status.ok()) << status.error_message();
    const auto& headers = context.GetServerTrailingMetadata();
    const auto found = headers.find("korvel-reconcile");
    return found == headers.end() ? "" : std::string(found->second.data(), found->second.size());
  };
  EXPECT_EQ(verified(config()), "");
  EXPECT_THAT(verified(config("", 6)), HasSubstr("8 entries: it has room for 6 now"));
  EXPECT_THAT(entries(), SizeIs(8));

  Config lacking = config();
  auto* field = lacking.mutable_p4info()->mutable_tables(0)->mutable_match_fields(0);
  field->clear_match_type();
  field->set_other_match_type("of_another_kind");
  EXPECT_CODE(push(lacking), OK);
  const auto strict = agent_.korvel({"set", "p4runtime/config/agent", "strictPushes", "true"});
  ASSERT_EQ(strict.exit.code, 0) << strict.error;
  const grpc::Status refused = push(lacking, Set::VERIFY);
  EXPECT_EQ(refused.error_code(), grpc::INVALID_ARGUMENT);
  EXPECT_THAT(refused.error_message(), HasSubstr("table ingress.port"));
  Config whole = config();
  for (auto& table : *whole.mutable_p4info()->mutable_tables()) {
    table.clear_has_initial_entries();  // which this push does not bring
  }
  EXPECT_CODE(push(whole), OK);
}

// Nobody's stream ends, and no Write hears another word than that it should come again.
TEST_F(PushTest, OthersWriteMeanwhile) {
  ASSERT_TRUE(push(config()).ok());
  std::atomic<bool> stopping{false};
  std::vector<std::string> trouble;
  std::atomic<int> written{0};
  std::thread writer([&] {
    for (uint32_t i = 0; !stopping; ++i) {
      const auto entry = Router::route(router_, i % 1000, 1);
      const WriteOutcome outcome = controller_->write({insertOf(entry)});
      const grpc::StatusCode code = outcome.status.error_code() == grpc::UNKNOWN
                                        ? outcome.code(0)
                                        : outcome.status.error_code();
      if (code == grpc::OK) ++written;
      if (code != grpc::OK && code != grpc::UNAVAILABLE && code != grpc::ALREADY_EXISTS) {
        trouble.push_back(testing::PrintToString(outcome));
      }
    }
  });
  for (int i = 0; i < 20; ++i) {
    const int before = written;
    EXPECT_CODE(push(config("", 10000 + i % 3)), OK);
    EXPECT_TRUE(waitUntil([&] { return written > before; }));
  }
  stopping = true;
  writer.join();
  EXPECT_THAT(trouble, IsEmpty());
  EXPECT_EQ(controller_->arbitrate(), grpc::OK);
  EXPECT_EQ(disagreement(), "");
}

TEST_F(PushTest, KilledMeanwhileTheFormerOrTheNewOneStands) {
  const Config configs[] = {config("former"), config("new", 20000)};
  ASSERT_TRUE(push(configs[0]).ok());
  ASSERT_TRUE(insertRoutes(0, 5).ok());
  int running = 0;
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    std::thread pusher(
        [&, id = electionId_] { pushOf(id, Set::VERIFY_AND_COMMIT, &configs[1 - running]); });
    std::this_thread::sleep_for(std::chrono::milliseconds(round * 4));
    agent_.kill();
    pusher.join();
    ASSERT_NO_FATAL_FAILURE(startAgain());
    const bool isNew = get().config().p4_device_config() == configs[1 - running].p4_device_config();
    if (isNew) running = 1 - running;
    expectRuns(configs[running]);
    EXPECT_THAT(entries(), SizeIs(isNew ? 0 : 5));
    EXPECT_EQ(disagreement(), "");
    if (isNew) {
      ASSERT_TRUE(insertRoutes(0, 5).ok());
    }
  }
}

class ConfiguredPushTest : public PushTest {
 protected:
  ConfiguredPushTest() : PushTest(true) {}
};

TEST_F(ConfiguredPushTest, AResetGoesBackToTheConfiguredFile) {
  ASSERT_TRUE(agent_.waitServing());
  const Config configured = get().config();
  EXPECT_CODE(push(configured, Set::RECONCILE_AND_COMMIT), OK);
  const Config pushed = config(programJson, 20000);
  ASSERT_TRUE(push(pushed).ok());
  EXPECT_EQ(disagreement(), "");
  restart();
  expectRuns(pushed);
  const CommandResult reset = agent_.korvel({"pipeline", "reset"});
  EXPECT_EQ(reset.exit.code, 0) << reset.error;
  EXPECT_TRUE(waitUntil([&] { return MessageDifferencer::Equals(get().config(), configured); }));
  // They go once the entries are back, too.
  const std::string files = agent_.options().stateDirectory + "/pushed";
  EXPECT_TRUE(waitUntil([&] { return std::filesystem::is_empty(files); }));
  restart();
  expectRuns(configured);
  EXPECT_THAT(agent_.korvel({"pipeline", "reset"}).output, HasSubstr("in force already"));
}

}  // namespace
