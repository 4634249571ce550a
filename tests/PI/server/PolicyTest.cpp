// Policies on a running server: calls, roles, packets and notices of controllers with identities.
#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <map>
#include <thread>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_policy.h"
#include "PI/proto/pi_server_security.h"
#include "google/rpc/status.pb.h"
#include "tests/PI/server/ServerFixture.h"
#include "tests/PI/support/RefusedWith.h"
#include "tests/support/Certificates.h"

namespace {

using p4::v1::StreamMessageRequest;
using p4::v1::StreamMessageResponse;
using pi::fe::proto::EntityUse;
using TestSupport::RefusedWith;

using Stub = p4::v1::P4Runtime::Stub;

TestSupport::Certificates& TheCertificates() {
  static auto* const all = [] {
    auto* made = new TestSupport::Certificates;
    made->certificateIs(
        {.name = "switch", .subject = "/CN=switch", .alternatives = "IP:127.0.0.1"});
    return made;
  }();
  return *all;
}

// With a certificate of that name, which is made when it is asked for first.
std::shared_ptr<grpc::ChannelCredentials> credentialsOf(const std::string& identity) {
  static auto* const made = new std::map<std::string, std::shared_ptr<grpc::ChannelCredentials>>;
  auto& credentials = (*made)[identity];
  if (credentials) return credentials;
  TheCertificates().certificateIs({.name = identity, .subject = "/CN=" + identity});
  grpc::SslCredentialsOptions options;
  options.pem_root_certs = TheCertificates().bytes("ca.pem");
  options.pem_cert_chain = TheCertificates().bytes(identity + ".pem");
  options.pem_private_key = TheCertificates().bytes(identity + ".key");
  return credentials = grpc::SslCredentials(options);
}

class PolicyTest : public ServerTest {
 protected:
  PolicyTest() {
    stop();
    startTls();
    stub_ = stubAs("agent");
    EXPECT_EQ(PIGrpcServerPolicyIs(nullptr, 0, nullptr), 0);
    TheFakeDevice().onWrite = [](const p4::v1::WriteRequest& request) { return written(request); };
  }
  ~PolicyTest() override { PIGrpcServerPolicyIs(nullptr, 0, nullptr); }

  static void startTls() {
    const std::string certificate = TheCertificates().file("switch.pem"),
                      key = TheCertificates().file("switch.key"),
                      ca = TheCertificates().file("ca.pem");
    const PIGrpcServerCertificates_t files{
        .certificate = certificate.c_str(), .key = key.c_str(), .client_ca = ca.c_str()};
    ASSERT_EQ(PIGrpcServerRunWith("127.0.0.1:0", &files, nullptr), 0) << PIGrpcServerLastError();
  }
  static std::unique_ptr<Stub> stubAs(const std::string& identity) {
    return p4::v1::P4Runtime::NewStub(grpc::CreateChannel(
        "127.0.0.1:" + std::to_string(PIGrpcServerGetPort()), credentialsOf(identity)));
  }
  Stub& stubOf(const std::string& identity) {
    auto& stub = stubs_[identity];
    if (!stub) stub = stubAs(identity);
    return *stub;
  }

  static void policyIs(const std::string& text) {
    ASSERT_EQ(PIGrpcServerPolicyIs(text.data(), text.size(), "p.json"), 0)
        << PIGrpcServerPolicyError();
  }
  // Tables 1 to 8 with roles r1 to r8 by annotation, and digests 11 to 18.
  void pipelineIs() {
    p4::v1::SetForwardingPipelineConfigRequest request;
    request.set_device_id(deviceId_);
    auto& p4Info = *request.mutable_config()->mutable_p4info();
    for (uint32_t i = 1; i <= 8; ++i) {
      auto& table = *p4Info.add_tables()->mutable_preamble();
      table.set_id(i);
      table.set_name("t" + std::to_string(i));
      table.add_annotations("@p4runtime_role(\"r" + std::to_string(i) + "\")");
      auto& digest = *p4Info.add_digests()->mutable_preamble();
      digest.set_id(10 + i);
      digest.set_name("d" + std::to_string(i));
      digest.add_annotations("@p4runtime_role(\"r" + std::to_string(i) + "\")");
    }
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
    grpc::ClientContext context;
    context.AddMetadata(PIGrpcServerLocalTokenKey(), PIGrpcServerLocalToken());
    p4::v1::SetForwardingPipelineConfigResponse response;
    ASSERT_TRUE(stub_->SetForwardingPipelineConfig(&context, request, &response).ok());
  }
  static const p4::config::v1::P4Info& p4Info() {
    return TheFakeDevice().pipelines.back().p4info();
  }
  // As the front end does it, with the rights of the caller.
  static FakeDevice::Status written(const p4::v1::WriteRequest& request) {
    const auto* const caller = TheFakeDevice().caller;
    if (caller == nullptr) return {};
    const auto rights = caller->rights(1, p4Info());
    for (const auto& update : request.updates()) {
      const uint32_t id = update.entity().table_entry().table_id();
      if (rights->permits(EntityUse::write, {{}, id})) continue;
      return statusOf(StatusCode::PERMISSION_DENIED,
                      rights->refusal(EntityUse::write, {{}, id}, "table t" + std::to_string(id)));
    }
    return {};
  }
  grpc::Status writeAs(const std::string& identity, const std::string& role, uint64_t electionId,
                       uint32_t table) {
    p4::v1::WriteRequest request;
    request.set_device_id(deviceId_);
    request.set_role(role);
    request.mutable_election_id()->set_low(electionId);
    request.add_updates()->mutable_entity()->mutable_table_entry()->set_table_id(table);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    p4::v1::WriteResponse response;
    return stubOf(identity).Write(&context, request, &response);
  }
  // The tables of 1 to 8 that a Read shows, or the code of its refusal.
  grpc::Status readAs(const std::string& identity, const std::string& role, std::string* tables) {
    tables->clear();
    TheFakeDevice().onRead = [tables](const auto&, const auto&) {
      const auto* const caller = TheFakeDevice().caller;
      const auto rights = caller ? caller->rights(1, p4Info()) : nullptr;
      for (uint32_t id = 1; id <= 8; ++id) {
        if (!rights || rights->permits(EntityUse::read, {{}, id})) *tables += std::to_string(id);
      }
      return FakeDevice::Status();
    };
    p4::v1::ReadRequest request;
    request.set_device_id(deviceId_);
    request.set_role(role);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    const auto reader = stubOf(identity).Read(&context, request);
    p4::v1::ReadResponse response;
    while (reader->Read(&response)) {
    }
    return reader->Finish();
  }
  std::unique_ptr<Controller> controller(const std::string& identity, const std::string& role) {
    return std::make_unique<Controller>(stubOf(identity), deviceId_, role);
  }
  // Until the answer to a message that nobody supports.
  static std::vector<std::string> heardBy(Controller& controller) {
    StreamMessageRequest last;
    last.mutable_other();
    controller.send(last);
    std::vector<std::string> heard;
    while (true) {
      const StreamMessageResponse next = controller.next();
      if (next.has_digest()) {
        heard.push_back("digest " + std::to_string(next.digest().digest_id()));
      } else if (next.has_idle_timeout_notification()) {
        const auto& idle = next.idle_timeout_notification().table_entry(0);
        heard.push_back("idle " + std::to_string(idle.table_id()));
      } else if (next.has_packet()) {
        heard.push_back("packet");
      } else if (next.error().canonical_code() == StatusCode::PERMISSION_DENIED) {
        heard.push_back("refused");
      } else {
        EXPECT_EQ(next.error().canonical_code(), StatusCode::UNIMPLEMENTED);
        return heard;
      }
    }
  }
  void emitDigest(uint32_t id) {
    StreamMessageResponse response;
    response.mutable_digest()->set_digest_id(id);
    TheFakeDevice().emit(deviceId_, response);
  }
  void emitIdle(uint32_t table) {
    StreamMessageResponse response;
    response.mutable_idle_timeout_notification()->add_table_entry()->set_table_id(table);
    TheFakeDevice().emit(deviceId_, response);
  }
  void emitPacket(const std::string& payload) {
    StreamMessageResponse response;
    response.mutable_packet()->set_payload(payload);
    TheFakeDevice().emit(deviceId_, response);
  }

 private:
  std::map<std::string, std::unique_ptr<Stub>> stubs_;
};

constexpr const char* kTwo = R"({"name": "two", "allow_rules": [
    {"name": "a", "source": {"principals": ["a", "a2"]},
     "request": {"roles": ["ra"], "tables": ["t1"]}},
    {"name": "b", "source": {"principals": ["b"]}, "request": {"roles": [""]}},
    {"name": "m", "source": {"principals": ["m"]},
     "request": {"operations": ["read"], "tables": ["t3"]}}]})";

TEST_F(PolicyTest, AStrangerGetsInNowhereAndBlocksNobody) {
  pipelineIs();
  policyIs(kTwo);
  const auto stranger = controller("stranger", "ra");
  stranger->sendArbitration(UINT64_MAX);
  EXPECT_THAT(stranger->ended(), RefusedWith(StatusCode::PERMISSION_DENIED, "StreamChannel"));
  std::string tables;
  EXPECT_THAT(readAs("stranger", "", &tables), RefusedWith(StatusCode::PERMISSION_DENIED, "Read"));
  EXPECT_THAT(writeAs("stranger", "", 1, 1), RefusedWith(StatusCode::PERMISSION_DENIED, "Write"));
  grpc::ClientContext context;
  p4::v1::GetForwardingPipelineConfigResponse config;
  EXPECT_EQ(stubOf("stranger").GetForwardingPipelineConfig(&context, {}, &config).error_code(),
            StatusCode::PERMISSION_DENIED);
  // Known, but not in this role; and one that may be in no election.
  const auto b = controller("b", "ra");
  b->sendArbitration(UINT64_MAX);
  EXPECT_THAT(b->ended(),
              RefusedWith(StatusCode::PERMISSION_DENIED, "'b' may not have a stream in role 'ra'"));
  const auto m = controller("m", "ra");
  m->sendArbitration(UINT64_MAX);
  EXPECT_THAT(m->ended(),
              RefusedWith(StatusCode::PERMISSION_DENIED, "'m' may not take part in the election"));
  const auto watching = controller("m", "ra");
  EXPECT_EQ(watching->arbitrate(std::nullopt), StatusCode::NOT_FOUND);
  // Nobody's id counts for those who may.
  const auto a = controller("a", "ra");
  EXPECT_EQ(a->arbitrate(1), StatusCode::OK);
  EXPECT_TRUE(writeAs("a", "ra", 1, 1).ok());
}

TEST_F(PolicyTest, AnElectionIdAloneLetsNobodyIn) {
  pipelineIs();
  policyIs(kTwo);
  const auto a = controller("a", "ra");
  ASSERT_EQ(a->arbitrate(7), StatusCode::OK);
  const auto b = controller("b", "");
  ASSERT_EQ(b->arbitrate(7), StatusCode::OK);
  const struct {
    const char* identity;
    const char* role;
    uint32_t table;
    const char* fault;  // empty: OK
  } cases[] = {
      {"a", "ra", 1, ""},
      {"a", "ra", 2, "table t2: not to be written by 'a' in role 'ra'"},
      {"a2", "ra", 1, "the primary is not 'a2'"},
      {"b", "ra", 1, "'b' may not call Write in role 'ra'"},
      {"a", "", 1, "'a' may not call Write in the default role"},
      {"m", "", 3, "'m' may not call Write"},
      {"b", "", 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.identity) + " in '" + c.role + "': " + std::to_string(c.table));
    const grpc::Status status = writeAs(c.identity, c.role, 7, c.table);
    if (*c.fault == '\0') {
      EXPECT_TRUE(status.ok()) << status.error_message();
    } else {
      EXPECT_THAT(status, RefusedWith(StatusCode::PERMISSION_DENIED, c.fault));
    }
  }
  std::string tables;
  EXPECT_TRUE(readAs("m", "", &tables).ok());
  EXPECT_EQ(tables, "3");
  EXPECT_TRUE(readAs("a", "", &tables).ok());  // in all its roles
  EXPECT_EQ(tables, "1");
  EXPECT_TRUE(readAs("b", "", &tables).ok());
  EXPECT_EQ(tables, "12345678");
  // The agent's own push needs no rule.
  EXPECT_TRUE(push().ok());
  grpc::ClientContext context;
  p4::v1::SetForwardingPipelineConfigRequest request;
  request.set_device_id(deviceId_);
  request.set_role("ra");
  request.mutable_election_id()->set_low(7);
  p4::v1::SetForwardingPipelineConfigResponse response;
  EXPECT_EQ(stubOf("a").SetForwardingPipelineConfig(&context, request, &response).error_code(),
            StatusCode::PERMISSION_DENIED);
}

// A config of one role bars the configs of others from its objects.
TEST_F(PolicyTest, AConfigNamesOnlyObjectsThatItsControllerMayWrite) {
  pipelineIs();
  constexpr const char* policy = R"({"name": "roles", "allow_rules": [
      {"name": "a", "source": {"principals": ["a"]}, "request": {"roles": ["ra"], "tables": ["t1"]}},
      {"name": "looks", "source": {"principals": ["a"]},
       "request": {"roles": ["ra"], "operations": ["read"]}},
      {"name": "b", "source": {"principals": ["b"]}, "request": {"roles": ["rb"], "tables": ["t*"]}}]})";
  policyIs(policy);
  const std::string keeps1 = "\x08\x01", keeps2 = "\x08\x02", shares2 = "\x10\x02";
  const std::string keepsUnknown = "\x08\x77";
  const char* const refused =
      "table t2: not to be written by 'a' in role 'ra'; leave it out of the role's config";
  const struct {
    const char* what;
    std::string config;
    const char* fault;  // empty: OK
  } cases[] = {
      {"its own", keeps1, ""},
      {"its own while it has a config", keeps1 + keepsUnknown, ""},
      {"another's to itself", keeps1 + keeps2, refused},
      {"another's shared", keeps1 + shares2, refused},
      {"another's alone", keeps2, refused},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto a = controller("a", "ra");
    a->configIs(c.config);
    if (*c.fault == '\0') {
      EXPECT_EQ(a->arbitrate(1), StatusCode::OK);
    } else {
      a->sendArbitration(2);
      EXPECT_THAT(a->ended(), RefusedWith(StatusCode::PERMISSION_DENIED, c.fault));
    }
  }
  const auto b = controller("b", "rb");
  b->configIs(keeps2);
  EXPECT_EQ(b->arbitrate(1), StatusCode::OK);
  EXPECT_TRUE(writeAs("b", "rb", 1, 2).ok());
  // An object more than the role's config had: the former config does not bar it.
  b->configIs(keeps2 + "\x08\x03");
  EXPECT_EQ(b->arbitrate(2), StatusCode::OK);
  EXPECT_TRUE(writeAs("b", "rb", 2, 3).ok());
  // Without a policy everybody may name all that nobody else keeps.
  EXPECT_EQ(PIGrpcServerPolicyIs(nullptr, 0, nullptr), 0);
  const auto a = controller("a", "ra");
  a->configIs("\x08\x04");
  EXPECT_EQ(a->arbitrate(1), StatusCode::OK);
}

TEST_F(PolicyTest, ACallerWithoutAnIdentityIsAStranger) {
  stop();
  start();
  policyIs(kTwo);
  grpc::ClientContext context;
  p4::v1::CapabilitiesResponse response;
  EXPECT_EQ(stub_->Capabilities(&context, {}, &response).error_code(),
            StatusCode::PERMISSION_DENIED);
  policyIs(R"({"name": "x", "allow_rules": [{"name": "x", "source": {"principals": [""]}}]})");
  grpc::ClientContext again;
  EXPECT_TRUE(stub_->Capabilities(&again, {}, &response).ok());
}

// Each in its role by annotations; one role gets packets, and another sends them.
TEST_F(PolicyTest, EightControllersOnDisjointScopesHearAndDoNothingOfEachOthers) {
  pipelineIs();
  policyIs(R"json({"name": "eight", "allow_rules": [
      {"name": "own", "source": {"principals": ["c*"]},
       "request": {"roles": ["r*"], "entities": ["@p4runtime_role(\"{role}\")"]}},
      {"name": "in", "source": {"principals": ["c1"]},
       "request": {"roles": ["r1"], "operations": ["packet_in"]}},
      {"name": "out", "source": {"principals": ["c2"]},
       "request": {"roles": ["r2"], "operations": ["packet_out"]}}]})json");
  std::atomic<int> sent = 0;
  TheFakeDevice().onStreamMessage = [&](const StreamMessageRequest&) {
    ++sent;
    return statusOf(0);
  };
  std::vector<std::unique_ptr<Controller>> all;
  const auto text = [](char letter, size_t i) { return letter + std::to_string(i); };
  for (size_t i = 1; i <= 8; ++i) {
    all.push_back(controller(text('c', i), text('r', i)));
    ASSERT_EQ(all.back()->arbitrate(5), StatusCode::OK);
  }
  for (size_t i = 1; i <= 8; ++i) {
    for (uint32_t table = 1; table <= 8; ++table) {
      EXPECT_EQ(writeAs(text('c', i), text('r', i), 5, table).ok(), table == i);
    }
    std::string tables;
    EXPECT_TRUE(readAs(text('c', i), text('r', i), &tables).ok());
    EXPECT_EQ(tables, std::to_string(i));
    emitDigest(static_cast<uint32_t>(10 + i));
    emitIdle(static_cast<uint32_t>(i));
    StreamMessageRequest out;
    out.mutable_packet()->set_payload("x");
    all[i - 1]->send(out);
  }
  emitPacket("in");
  for (size_t i = 1; i <= 8; ++i) {
    SCOPED_TRACE(i);
    const std::vector<std::string> heard = heardBy(*all[i - 1]);
    std::vector<std::string> expected{"digest " + std::to_string(10 + i),
                                      "idle " + std::to_string(i)};
    if (i == 1) expected.push_back("packet");
    if (i != 2) expected.push_back("refused");
    EXPECT_THAT(heard, testing::UnorderedElementsAreArray(expected));
  }
  EXPECT_EQ(sent, 1);
}

TEST_F(PolicyTest, AnotherPolicyCountsAtOnceAndABrokenOneChangesNothing) {
  pipelineIs();
  policyIs(kTwo);
  const auto a = controller("a", "ra");
  ASSERT_EQ(a->arbitrate(7), StatusCode::OK);
  const auto b = controller("b", "");
  ASSERT_EQ(b->arbitrate(7), StatusCode::OK);
  for (const std::string broken : {"", "{", R"({"name": "x"})"}) {
    EXPECT_EQ(PIGrpcServerPolicyIs(broken.data(), broken.size(), "p.json"), -1);
    EXPECT_THAT(PIGrpcServerPolicyError(), testing::StartsWith("p.json: "));
  }
  EXPECT_TRUE(writeAs("a", "ra", 7, 1).ok());
  // It loses its role, and its place in the election.
  policyIs(R"({"name": "b", "allow_rules": [{"name": "b", "source": {"principals": ["b"]}}]})");
  const auto last = a->next();
  EXPECT_EQ(last.error().canonical_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_THAT(last.error().message(), testing::HasSubstr("'a' may not have a stream in role 'ra'"));
  EXPECT_FALSE(a->ended().ok());
  EXPECT_FALSE(writeAs("a", "ra", 7, 1).ok());
  EXPECT_TRUE(writeAs("b", "", 7, 1).ok());
  const auto heir = controller("b", "ra");
  EXPECT_EQ(heir->arbitrate(7), StatusCode::OK);
}

// Neither a Write nor a stream of one who may be there suffers from a policy that is replaced all
// the time.
TEST_F(PolicyTest, ReloadsUnderLoadFailNoCall) {
  pipelineIs();
  policyIs(kTwo);
  const auto a = controller("a", "ra");
  ASSERT_EQ(a->arbitrate(7), StatusCode::OK);
  std::atomic<bool> over = false;
  std::thread reloads([&] {
    const std::string good = kTwo;
    while (!over) {
      EXPECT_EQ(PIGrpcServerPolicyIs(good.data(), good.size(), "p.json"), 0);
      EXPECT_EQ(PIGrpcServerPolicyIs("{", 1, "p.json"), -1);
      emitPacket("in");
    }
  });
  for (int i = 0; i < 500; ++i) {
    const grpc::Status good = writeAs("a", "ra", 7, 1);
    EXPECT_TRUE(good.ok()) << good.error_message();
    EXPECT_EQ(writeAs("a", "ra", 7, 2).error_code(), StatusCode::PERMISSION_DENIED);
    EXPECT_EQ(writeAs("stranger", "ra", 7, 1).error_code(), StatusCode::PERMISSION_DENIED);
  }
  over = true;
  reloads.join();
  EXPECT_THAT(heardBy(*a), testing::IsEmpty());  // no packet: its rule names tables
}

}  // namespace
