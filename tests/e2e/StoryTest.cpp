// Controllers of the world as they are: each begins, pushes, clears, writes, reads and deletes in
// its own manner, over calls of its own making.
#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>

#include "google/rpc/status.pb.h"
#include "p4/tmp/p4config.pb.h"
#include "tests/e2e/Router.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"
#include "tests/support/Waiting.h"

using google::protobuf::util::MessageDifferencer;
using p4::v1::Entity;
using p4::v1::MasterArbitrationUpdate;
using p4::v1::TableEntry;
using p4::v1::Update;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace TestSupport;

namespace {

using Get = p4::v1::GetForwardingPipelineConfigRequest;
using Set = p4::v1::SetForwardingPipelineConfigRequest;

const std::string programJson = R"({"program": "router.p4", "__meta__": {"version": [2, 23]}})";

std::string wrapped(const std::string& program) {
  p4::tmp::P4DeviceConfig device;
  device.set_reassign(true);
  device.set_device_data(program);
  return device.SerializeAsString();
}

// The bytes of a stratum.P4RoleConfig: a number of one digit for each field.
p4::v1::Role roleOf(const std::string& name, const std::string& config = "") {
  p4::v1::Role role;
  role.set_name(name);
  if (config.empty()) return role;
  role.mutable_config()->set_type_url("type.googleapis.com/stratum.P4RoleConfig");
  role.mutable_config()->set_value(config);
  return role;
}
// A list of ids in it.
std::string idsOf(int field, const std::vector<uint32_t>& ids) {
  std::string bytes;
  for (uint32_t id : ids) {
    bytes += static_cast<char>(field << 3);
    for (; id > 0x7f; id >>= 7) bytes += static_cast<char>(id | 0x80);
    bytes += static_cast<char>(id);
  }
  return bytes;
}
std::string keeps(const std::vector<uint32_t>& ids) { return idsOf(1, ids); }
std::string shares(const std::vector<uint32_t>& ids) { return idsOf(2, ids); }
const std::string receivesPackets("\x20\x01", 2);
const std::string pushesPipelines("\x28\x01", 2);

// A controller of the world: what it says of itself in each of its calls.
struct Who {
  const char* what = "";
  uint64_t deviceId = 1;  // 0: left out
  uint64_t high = 0;
  uint64_t low = 1;
  p4::v1::Role role = {};
  bool hasRole = false;
  Set::Action action = Set::VERIFY_AND_COMMIT;
  std::string device = {};      // its p4_device_config
  int64_t cookie = -1;          // -1: it sends none
  bool getsFirst = false;       // the pipeline
  bool pads = false;            // its numbers
  int metadataBytes = 8 << 10;  // that it takes
};

// One session: a channel, a stream and unary calls, as that controller makes them.
class Session {
 public:
  Session(const std::string& address, const Who& who)
      : who_(who), stub_(p4::v1::P4Runtime::NewStub(channelTo(address, who.metadataBytes))) {
    context_.set_wait_for_ready(true);
    context_.set_deadline(std::chrono::system_clock::now() + patience);
    stream_ = stub_->StreamChannel(&context_);
  }

  // Sends the arbitration update; the answer is the stream's first message.
  MasterArbitrationUpdate arbitrate() {
    sendArbitration();
    p4::v1::StreamMessageResponse response;
    if (!stream_->Read(&response)) return {};
    EXPECT_TRUE(response.has_arbitration()) << response.ShortDebugString();
    return response.arbitration();
  }
  void sendArbitration() {
    p4::v1::StreamMessageRequest request;
    auto* update = request.mutable_arbitration();
    update->set_device_id(who_.deviceId);
    if (who_.hasRole) *update->mutable_role() = who_.role;
    update->mutable_election_id()->set_high(who_.high);
    update->mutable_election_id()->set_low(who_.low);
    EXPECT_TRUE(stream_->Write(request));
  }
  // At the end a controller closes its half, and waits.
  grpc::Status close() {
    stream_->WritesDone();
    p4::v1::StreamMessageResponse response;
    while (stream_->Read(&response)) {
    }
    return stream_->Finish();
  }

  grpc::Status get(Get::ResponseType type, p4::v1::ForwardingPipelineConfig* config) {
    Get request;
    request.set_device_id(who_.deviceId);
    request.set_response_type(type);
    p4::v1::GetForwardingPipelineConfigResponse response;
    auto context = callContext();
    const auto status = stub_->GetForwardingPipelineConfig(context.get(), request, &response);
    *config = response.config();
    return status;
  }
  grpc::Status set(const p4::v1::ForwardingPipelineConfig& config) {
    Set request;
    stamp(&request);
    request.set_action(who_.action);
    *request.mutable_config() = config;
    p4::v1::SetForwardingPipelineConfigResponse response;
    auto context = callContext();
    return stub_->SetForwardingPipelineConfig(context.get(), request, &response);
  }
  grpc::Status write(const std::vector<Update>& updates) {
    p4::v1::WriteRequest request;
    stamp(&request);
    for (const Update& update : updates) *request.add_updates() = update;
    p4::v1::WriteResponse response;
    auto context = callContext();
    return stub_->Write(context.get(), request, &response);
  }
  // The entities, and how many responses they came in.
  std::vector<Entity> read(const std::vector<Entity>& queries, size_t* responses = nullptr) {
    p4::v1::ReadRequest request;
    request.set_device_id(who_.deviceId);
    if (who_.hasRole) request.set_role(who_.role.name());
    for (const Entity& query : queries) *request.add_entities() = query;
    auto context = callContext();
    const auto reader = stub_->Read(context.get(), request);
    std::vector<Entity> entities;
    p4::v1::ReadResponse response;
    size_t count = 0;
    for (; reader->Read(&response); ++count) {
      entities.insert(entities.end(), response.entities().begin(), response.entities().end());
    }
    const grpc::Status status = reader->Finish();
    EXPECT_TRUE(status.ok()) << status.error_message();
    if (responses) *responses = count;
    return entities;
  }

 private:
  static std::shared_ptr<grpc::Channel> channelTo(const std::string& address, int metadataBytes) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, metadataBytes);
    return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
  }
  static std::unique_ptr<grpc::ClientContext> callContext() {
    auto context = std::make_unique<grpc::ClientContext>();
    context->set_deadline(std::chrono::system_clock::now() + patience);
    return context;
  }
  template <typename Request>
  void stamp(Request* request) {
    request->set_device_id(who_.deviceId);
    if (who_.hasRole) request->set_role(who_.role.name());
    request->mutable_election_id()->set_high(who_.high);
    request->mutable_election_id()->set_low(who_.low);
  }

  const Who who_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
};

class StoryTest : public testing::Test {
 protected:
  StoryTest()
      : agent_({.stateDirectory = directory_.file("state")}),
        forwarder_(directory_.file("state")) {}
  ~StoryTest() override {
    if (HasFailure()) std::cerr << "---- agent ----\n" << agent_.output();
  }
  void SetUp() override {
    agent_.start();
    forwarder_.start();
    ASSERT_TRUE(forwarder_.waitAttached());
  }
  void set(const char* attribute, const char* value) {
    const auto done = agent_.korvel({"set", "p4runtime/config/system", attribute, value});
    ASSERT_EQ(done.exit.code, 0) << done.error;
  }
  // As when nobody has ever been here: a controller with a low election id would stay a backup.
  void forgetAll() {
    ASSERT_EQ(agent_.korvel({"call", "p4runtime/piServer", "forgetElectionIds"}).exit.code, 0);
  }

  p4::v1::ForwardingPipelineConfig configOf(const Who& who) const {
    p4::v1::ForwardingPipelineConfig config;
    *config.mutable_p4info() = router_.p4info();
    config.set_p4_device_config(who.device);
    if (who.cookie >= 0) config.mutable_cookie()->set_cookie(static_cast<uint64_t>(who.cookie));
    return config;
  }
  // With its numbers as wide as their fields.
  static TableEntry padded(TableEntry entry) {
    for (auto& match : *entry.mutable_match()) {
      if (match.has_exact()) pad(match.mutable_exact()->mutable_value());
      if (match.has_lpm()) pad(match.mutable_lpm()->mutable_value());
    }
    for (auto& param : *entry.mutable_action()->mutable_action()->mutable_params()) {
      pad(param.mutable_value());
    }
    return entry;
  }
  static void pad(std::string* value) { value->insert(0, 32, '\0'); }

  void begins(const Who& who, Session& session) {
    const MasterArbitrationUpdate notice = session.arbitrate();
    EXPECT_EQ(notice.status().code(), grpc::OK);
    EXPECT_EQ(notice.device_id(), who.deviceId);
    EXPECT_EQ(notice.election_id().high(), who.high);
    EXPECT_EQ(notice.election_id().low(), who.low);
    EXPECT_EQ(notice.has_role(), who.hasRole);
    EXPECT_TRUE(MessageDifferencer::Equals(notice.role(), who.role));
    p4::v1::ForwardingPipelineConfig found;
    if (who.getsFirst) {
      EXPECT_TRUE(session.get(Get::P4INFO_AND_COOKIE, &found).ok());
    }
    const p4::v1::ForwardingPipelineConfig pushed = configOf(who);
    const grpc::Status status = session.set(pushed);
    ASSERT_TRUE(status.ok()) << status.error_message();
    EXPECT_TRUE(session.get(Get::ALL, &found).ok());
    EXPECT_TRUE(MessageDifferencer::Equals(found, pushed));
  }
  // Entries, then default entries, groups and members, each as it is read.
  void clearsAll(Session& session) {
    Entity groups, clones;
    groups.mutable_packet_replication_engine_entry()->mutable_multicast_group_entry();
    clones.mutable_packet_replication_engine_entry()->mutable_clone_session_entry();
    deletes(session, session.read({entityOf(TableEntry()), groups, clones}));
    std::vector<Update> resets;
    for (const auto& table : router_.p4info().tables()) {
      if (table.const_default_action_id() != 0 || table.implementation_id() != 0) continue;
      TableEntry reset;
      reset.set_table_id(table.preamble().id());
      reset.set_is_default_action(true);
      resets.push_back(modifyOf(reset));
    }
    const grpc::Status reset = session.write(resets);
    EXPECT_TRUE(reset.ok()) << reset.error_message();
    deletes(session, session.read({entityOf(p4::v1::ActionProfileGroup()),
                                   entityOf(p4::v1::ActionProfileMember())}));
    size_t responses = 0;
    EXPECT_THAT(session.read({entityOf(TableEntry())}, &responses), IsEmpty());
    EXPECT_EQ(responses, 1u) << "some wait for one message, whatever there is";
  }
  static void deletes(Session& session, const std::vector<Entity>& entities) {
    std::vector<Update> updates;
    for (const Entity& entity : entities) updates.push_back(updateOf(Update::DELETE, entity));
    const grpc::Status status = session.write(updates);  // also without updates
    EXPECT_TRUE(status.ok()) << status.error_message();
  }
  // Writes entries, reads them back as they are answered, and deletes them as they were read.
  void writesReadsAndDeletes(const Who& who, Session& session) {
    TableEntry route = Router::route(router_, 1, 7);
    route.set_controller_metadata(0x10000abcdef);
    route.set_metadata("test metadata");
    const TableEntry rule = Router::aclRule(router_, 3);
    for (const TableEntry& entry : {route, rule}) {
      const grpc::Status status = session.write({insertOf(who.pads ? padded(entry) : entry)});
      ASSERT_TRUE(status.ok()) << status.error_message();
    }
    size_t responses = 0;
    const std::vector<Entity> found = session.read({entityOf(TableEntry())}, &responses);
    EXPECT_EQ(responses, 1u);
    ASSERT_THAT(found, SizeIs(2));
    const bool routeFirst = found[0].table_entry().table_id() == route.table_id();
    EXPECT_TRUE(MessageDifferencer::Equals(found[routeFirst ? 0 : 1].table_entry(), route));
    EXPECT_TRUE(MessageDifferencer::Equals(found[routeFirst ? 1 : 0].table_entry(), rule));
    for (const Entity& entity : found) deletes(session, {entity});
    EXPECT_THAT(session.read({entityOf(TableEntry())}), IsEmpty());
  }
  std::unique_ptr<Session> session(const Who& who) {
    return std::make_unique<Session>(agent_.address(), who);
  }

  const TempDir directory_;
  const TestSupport::Pipeline router_ = Router::pipeline();
  AgentProcess agent_;
  ForwarderProcess forwarder_;
};

// What the public controllers say, one line each: the interactive shell and its kin, the scripts of
// tutorials, the network controllers, the test runners and the vendors' tools.
TEST_F(StoryTest, EachBeginsPushesClearsWritesReadsAndDeletes) {
  set("deviceIdZero", "true");
  const Who all[] = {
      {.what = "shell", .high = 1, .low = 0, .device = programJson},
      {.what = "shell with a role",
       .high = 1,
       .low = 0,
       .role = roleOf("operator"),
       .hasRole = true,
       .device = programJson},
      {.what = "by cookie",
       .low = 10,
       .device = programJson,
       .cookie = 0x1122334455667788,
       .getsFirst = true},
      {.what = "tutorial, device 0", .deviceId = 0, .device = wrapped(programJson), .pads = true},
      {.what = "learning scripts",
       .high = 1,
       .low = 0,
       .device = programJson,
       .getsFirst = true,
       .pads = true},
      {.what = "example with a cookie of 0", .deviceId = 0, .device = programJson, .cookie = 0},
      {.what = "command line",
       .high = 1,
       .low = 0,
       .device = "opaque",
       .getsFirst = true,
       .pads = true},
      {.what = "network controller",
       .low = 20,
       .device = programJson,
       .cookie = 0x7edcba9876543210,
       .getsFirst = true},
      {.what = "reconciler",
       .high = 1780000000,
       .low = 123,
       .role = roleOf("sdn_controller"),
       .hasRole = true,
       .action = Set::RECONCILE_AND_COMMIT,
       .getsFirst = true},
      {.what = "empty role",
       .high = 1780000001,
       .low = 1,
       .hasRole = true,
       .action = Set::RECONCILE_AND_COMMIT},
      {.what = "client with a constant cookie", .cookie = 0x04b2008fd98c1dd4},
      {.what = "pusher with a role",
       .low = 1,
       .role = roleOf("pusher", pushesPipelines),
       .hasRole = true,
       .device = std::string("\x0a\x04name\x12\x02{}", 10)},
      {.what = "replayed vectors", .low = 4, .device = programJson, .pads = true},
      {.what = "test runner", .low = 1, .device = programJson},
      {.what = "profiles", .low = 1, .cookie = 159},
  };
  for (const Who& who : all) {
    SCOPED_TRACE(who.what);
    forgetAll();
    const auto one = session(who);
    begins(who, *one);
    clearsAll(*one);
    writesReadsAndDeletes(who, *one);
    EXPECT_TRUE(one->close().ok());
    // Scripts run in a row with the same election id.
    const auto again = session(who);
    EXPECT_EQ(again->arbitrate().status().code(), grpc::OK);
    EXPECT_TRUE(again->close().ok());
    if (HasFailure()) return;
  }
}

// Each update has its code, and as many have their message as the client's limit is known to take.
TEST_F(StoryTest, ManyFailuresAreToldOneByOne) {
  const struct {
    uint32_t updates;
    int metadataBytes;
  } cases[] = {{60, 8 << 10}, {600, 64 << 10}, {10000, 2 << 20}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.updates);
    forgetAll();
    const Who who{.device = programJson, .metadataBytes = c.metadataBytes};
    const auto session = this->session(who);
    begins(who, *session);
    std::vector<Update> updates;
    for (uint32_t i = 0; i < c.updates; ++i)
      updates.push_back(deleteOf(Router::route(router_, i, 1)));
    const grpc::Status status = session->write(updates);
    EXPECT_EQ(status.error_code(), grpc::UNKNOWN) << status.error_message();
    google::rpc::Status details;
    ASSERT_TRUE(details.ParseFromString(status.error_details()));
    ASSERT_EQ(details.details_size(), static_cast<int>(c.updates));
    size_t told = 0;
    for (const auto& detail : details.details()) {
      p4::v1::Error error;
      ASSERT_TRUE(detail.UnpackTo(&error));
      EXPECT_EQ(error.canonical_code(), grpc::NOT_FOUND);
      told += !error.message().empty();
    }
    EXPECT_GE(told, 30u);
    EXPECT_TRUE(session->close().ok());
  }
}

// A replay reads no answer: its push follows the arbitration update at once.
TEST_F(StoryTest, APushMayFollowTheArbitrationUpdateUnanswered) {
  const Who who{.device = programJson};
  for (int round = 0; round < 30; ++round) {
    const auto session = this->session(who);
    session->sendArbitration();
    const grpc::Status status = session->set(configOf(who));
    ASSERT_TRUE(status.ok()) << "round " << round << ": " << status.error_message();
    EXPECT_TRUE(session->close().ok());
  }
}

// As a network controller does it: a change is a deletion and an insertion of one key, a group
// comes with its members, and everything is polled with counters.
TEST_F(StoryTest, ANetworkControllerReconcilesWhatItReads) {
  const Who who{.low = 20, .device = programJson, .cookie = 77};
  const auto session = this->session(who);
  begins(who, *session);
  const std::vector<Update> inserts = {
      insertOf(Router::member(router_, 1, 1)), insertOf(Router::member(router_, 2, 2)),
      insertOf(Router::group(router_, 1, {{1, 1}, {2, 3}})),
      insertOf(Router::wcmp(router_, 1).group(1)), insertOf(Router::route(router_, 1, 1))};
  ASSERT_TRUE(session->write(inserts).ok());
  const grpc::Status changed = session->write(
      {deleteOf(Router::route(router_, 1, 1)), insertOf(Router::route(router_, 1, 2))});
  EXPECT_TRUE(changed.ok()) << changed.error_message();

  std::vector<Entity> queries;
  TableEntry everything, defaults;
  everything.mutable_counter_data();
  everything.mutable_meter_config();
  defaults = everything;
  defaults.set_is_default_action(true);
  const std::vector<Entity> polled = session->read({entityOf(everything), entityOf(defaults)});
  size_t entries = 0, defaultEntries = 0;
  for (const Entity& entity : polled) {
    ++(entity.table_entry().is_default_action() ? defaultEntries : entries);
  }
  EXPECT_EQ(entries, 2u);
  EXPECT_EQ(defaultEntries, static_cast<size_t>(router_.p4info().tables_size()));
  for (const auto& table : router_.p4info().tables()) {
    TableEntry query;
    query.set_table_id(table.preamble().id());
    queries.push_back(entityOf(query));
    query.set_is_default_action(true);
    query.mutable_counter_data();
    queries.push_back(entityOf(query));
  }
  EXPECT_THAT(session->read(queries), SizeIs(polled.size()));
  // Test runners undo everything in one request, backwards and as it was sent.
  std::vector<Update> undo;
  for (auto update = inserts.rbegin(); update != inserts.rend(); ++update) {
    undo.push_back(*update);
    undo.back().set_type(Update::DELETE);
  }
  const grpc::Status undone = session->write(undo);
  EXPECT_TRUE(undone.ok()) << undone.error_message();
  EXPECT_TRUE(session->close().ok());
}

// Scripts that push only when they cannot get a pipeline, and tools whose members weigh nothing.
TEST_F(StoryTest, LenienceIsThereForTheAsking) {
  const Who who{.high = 1, .low = 0, .device = programJson};
  auto session = this->session(who);
  session->arbitrate();
  p4::v1::ForwardingPipelineConfig found;
  EXPECT_TRUE(session->get(Get::P4INFO_AND_COOKIE, &found).ok());
  set("noPipelineIsError", "true");
  const grpc::Status none = session->get(Get::P4INFO_AND_COOKIE, &found);
  EXPECT_EQ(none.error_code(), grpc::FAILED_PRECONDITION);
  EXPECT_THAT(none.error_message(), HasSubstr("No forwarding pipeline config"));
  EXPECT_TRUE(session->close().ok());
  session = this->session(who);
  begins(who, *session);

  ASSERT_TRUE(session->write({insertOf(Router::member(router_, 1, 1))}).ok());
  const p4::v1::ActionProfileGroup group = Router::group(router_, 1, {{1, 0}});
  EXPECT_EQ(session->write({insertOf(group)}).error_code(), grpc::UNKNOWN);
  set("zeroWeights", "true");
  EXPECT_TRUE(session->write({insertOf(group)}).ok());
  const auto groups = session->read({entityOf(p4::v1::ActionProfileGroup())});
  ASSERT_THAT(groups, SizeIs(1));
  EXPECT_TRUE(MessageDifferencer::Equals(groups[0].action_profile_group(), group));
  const auto portOfMember = [&] {
    const auto members = session->read({entityOf(p4::v1::ActionProfileMember())});
    return members.at(0).action_profile_member().action().params(0).value();
  };
  const std::string shortest = portOfMember();
  set("paddedAnswers", "true");
  const std::string padded = portOfMember();
  EXPECT_GT(padded.size(), shortest.size());
  EXPECT_EQ(padded, std::string(padded.size() - shortest.size(), '\0') + shortest);
  set("paddedAnswers", "false");
  EXPECT_TRUE(session->close().ok());

  Who zero = who;
  zero.deviceId = 0;
  EXPECT_EQ(Session(agent_.address(), zero).arbitrate().status().code(), 0) << "the stream ended";
  const auto refused = this->session(zero);
  refused->arbitrate();
  EXPECT_EQ(refused->close().error_code(), grpc::NOT_FOUND);
}

TEST_F(StoryTest, ARoleDoesWhatItsConfigSays) {
  const Who pusher{.role = roleOf("pusher", pushesPipelines), .hasRole = true};
  const Who watcher{.role = roleOf("watcher", receivesPackets), .hasRole = true};
  const auto one = session(pusher);
  begins(pusher, *one);
  const auto other = session(watcher);
  const MasterArbitrationUpdate notice = other->arbitrate();
  EXPECT_TRUE(MessageDifferencer::Equals(notice.role(), watcher.role));
  const grpc::Status pushed = other->set(configOf(watcher));
  EXPECT_EQ(pushed.error_code(), grpc::PERMISSION_DENIED);
  EXPECT_THAT(pushed.error_message(), HasSubstr("can_push_pipeline"));
  EXPECT_TRUE(other->write({insertOf(Router::route(router_, 1, 1))}).ok());

  const struct {
    const char* what;
    p4::v1::Role role;
    const char* message;
  } refusals[] = {
      {"objects named twice", roleOf("x", "\x08\x07\x10\x07"), "exclusive_p4_ids and in shared"},
      {"damaged", roleOf("x", "\x0a"), "no stratum.P4RoleConfig"},
      {"the default role", roleOf("", pushesPipelines), "default role has no config"},
  };
  for (const auto& c : refusals) {
    SCOPED_TRACE(c.what);
    const auto refused = session({.role = c.role, .hasRole = true});
    refused->arbitrate();
    const grpc::Status status = refused->close();
    EXPECT_EQ(status.error_code(), grpc::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr(c.message));
  }
  // What a role names is its own, or shared; a role without a config has what nobody keeps.
  const uint32_t routes = router_.table(Router::routeTable).preamble().id();
  const uint32_t rules = router_.table(Router::aclTable).preamble().id();
  const uint32_t bundles = router_.table(Router::lagTable).preamble().id();
  const Who router{.role = roleOf("router", keeps({routes}) + shares({bundles})), .hasRole = true};
  const Who guard{.role = roleOf("guard", keeps({rules}) + shares({bundles})), .hasRole = true};
  const Who guest{.role = roleOf("guest"), .hasRole = true};
  const Who all{};
  const auto routerSession = session(router);
  routerSession->arbitrate();
  const auto guardSession = session(guard);
  guardSession->arbitrate();
  const auto guestSession = session(guest);
  guestSession->arbitrate();
  const auto allSession = session(all);
  allSession->arbitrate();
  const std::vector<Update> updates = {insertOf(Router::route(router_, 2, 1)),
                                       insertOf(Router::aclRule(router_, 2)),
                                       insertOf(Router::lag(router_, 2, 1, 2))};
  const struct {
    const char* who;
    Session& session;
    std::array<bool, 3> may;  // routes, rules, bundles
  } roles[] = {{"router", *routerSession, {true, false, true}},
               {"guard", *guardSession, {false, true, true}},
               {"guest", *guestSession, {false, false, true}},
               {"the default role", *allSession, {true, true, true}}};
  for (const auto& role : roles) {
    SCOPED_TRACE(role.who);
    for (size_t i = 0; i < updates.size(); ++i) {
      const grpc::Status status = role.session.write({updates[i]});
      EXPECT_EQ(status.ok(), role.may[i]) << i << " " << status.error_message();
      if (!status.ok()) {
        EXPECT_THAT(status.error_details(), HasSubstr("not to be written by a controller in role"));
      }
      Update removal = updates[i];
      removal.set_type(Update::DELETE);
      if (status.ok()) {
        EXPECT_TRUE(role.session.write({removal}).ok());
      }
    }
  }
  EXPECT_TRUE(allSession->write(updates).ok());
  const auto tablesSeenBy = [](Session& session) {
    std::set<uint32_t> tables;
    for (const Entity& entity : session.read({entityOf(p4::v1::TableEntry())})) {
      tables.insert(entity.table_entry().table_id());
    }
    return tables;
  };
  EXPECT_EQ(tablesSeenBy(*routerSession), (std::set{routes, bundles}));
  EXPECT_EQ(tablesSeenBy(*guardSession), (std::set{rules, bundles}));
  EXPECT_EQ(tablesSeenBy(*guestSession), (std::set{bundles}));
  EXPECT_EQ(tablesSeenBy(*allSession), (std::set{routes, rules, bundles}));
  const auto thief = session({.role = roleOf("thief", shares({rules})), .hasRole = true});
  thief->arbitrate();
  EXPECT_THAT(thief->close().error_message(), HasSubstr("which role 'guard' keeps to itself"));

  // Some controllers look for these words, and come again one lower.
  const auto duplicate = session(pusher);
  duplicate->arbitrate();
  const grpc::Status status = duplicate->close();
  EXPECT_EQ(status.error_code(), grpc::INVALID_ARGUMENT);
  EXPECT_THAT(status.error_message(), testing::ContainsRegex("election id .* used"));
  EXPECT_TRUE(one->close().ok());
  EXPECT_TRUE(other->close().ok());
}

// Plain connections have no identity: here their roles tell them apart.
TEST_F(StoryTest, APolicySaysWhatEachRoleMayDoAndIsReadAgain) {
  const std::string file = directory_.file("policy.json");
  const auto policyIs = [&](const std::string& guardsTables) {
    std::ofstream(file) << R"({"name": "p", "allow_rules": [
        {"name": "router", "source": {"principals": [""]},
         "request": {"roles": ["router"], "tables": ["*.ipv4_route"]}},
        {"name": "guard", "request": {"roles": ["guard"], "tables": [")" +
                               guardsTables + R"("]}}]})";
  };
  const auto setPolicy = [&](const std::string& path) {
    return agent_.korvel({"set", "p4runtime/config/security", "policy", path});
  };
  const auto status = [&](const char* attribute) {
    return agent_.korvel({"get", "p4runtime/status/policy", attribute}).output;
  };
  const Who all{};
  const auto pusher = session(all);
  begins(all, *pusher);
  EXPECT_NE(setPolicy(file).exit.code, 0) << "a file that is not there";
  policyIs("*.acl");
  ASSERT_EQ(setPolicy(file).exit.code, 0);
  EXPECT_EQ(pusher->write({}).error_code(), grpc::PERMISSION_DENIED);  // of the default role

  const Who router{.role = roleOf("router"), .hasRole = true};
  const Who guard{.role = roleOf("guard"), .hasRole = true};
  const Who thief{.role = roleOf("thief"), .hasRole = true};
  const auto routerSession = session(router);
  EXPECT_EQ(routerSession->arbitrate().status().code(), 0);
  const auto guardSession = session(guard);
  EXPECT_EQ(guardSession->arbitrate().status().code(), 0);
  const auto thiefSession = session(thief);
  thiefSession->sendArbitration();
  const grpc::Status out = thiefSession->close();
  EXPECT_EQ(out.error_code(), grpc::PERMISSION_DENIED);
  EXPECT_THAT(out.error_message(), HasSubstr("in role 'thief'"));

  const Update route = insertOf(Router::route(router_, 1, 1));
  const Update rule = insertOf(Router::aclRule(router_, 1));
  EXPECT_TRUE(routerSession->write({route}).ok());
  const grpc::Status both = guardSession->write({route, rule});
  EXPECT_EQ(both.error_code(), grpc::UNKNOWN);
  EXPECT_THAT(both.error_details(), HasSubstr("table ingress.ipv4_route: not to be written by"));
  EXPECT_THAT(both.error_details(), HasSubstr("in role 'guard'"));
  EXPECT_THAT(routerSession->read({entityOf(TableEntry())}), SizeIs(1));
  EXPECT_THAT(guardSession->read({entityOf(TableEntry())}), SizeIs(1));

  std::ofstream(file) << "{";
  ASSERT_TRUE(TestSupport::waitUntil(
      [&] { return status("fault").find("not JSON") != std::string::npos; }));
  EXPECT_FALSE(guardSession->write({route}).ok());
  policyIs("*");
  ASSERT_TRUE(
      TestSupport::waitUntil([&] { return status("loads").find('2') != std::string::npos; }));
  EXPECT_THAT(status("fault"), Not(HasSubstr("JSON")));
  EXPECT_THAT(guardSession->read({entityOf(TableEntry())}), SizeIs(2));
  EXPECT_TRUE(guardSession->write({deleteOf(Router::route(router_, 1, 1))}).ok());
  EXPECT_TRUE(routerSession->close().ok());
  EXPECT_TRUE(guardSession->close().ok());
}

}  // namespace
