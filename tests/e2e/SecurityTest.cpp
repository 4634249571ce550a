// Who gets in, with the whole agent: TLS, addresses that are refused, the Unix socket.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/e2e/Router.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/Certificates.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"

using grpc::StatusCode;
using testing::HasSubstr;
using testing::Not;
using namespace TestSupport;

namespace {

constexpr ExitStatus failed{.code = 1};

using Request = p4::v1::GetForwardingPipelineConfigRequest;

// Whether there is a pipeline, and which.
grpc::Status askedAs(const std::string& target,
                     const std::shared_ptr<grpc::ChannelCredentials>& credentials) {
  const auto stub = p4::v1::P4Runtime::NewStub(grpc::CreateChannel(target, credentials));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience);
  Request request;
  request.set_device_id(1);
  p4::v1::GetForwardingPipelineConfigResponse response;
  return stub->GetForwardingPipelineConfig(&context, request, &response);
}

class SecuredAgentTest : public testing::Test {
 protected:
  // `system` and `security`: members of these objects of the configuration.
  void startWith(const std::string& system, const std::string& security) {
    agent_ = std::make_unique<AgentProcess>(AgentOptions{
        .stateDirectory = directory_.file(fmt::format("state{}", ++starts_)),
        .port = port_,
        .configuration = fmt::format(
            R"({{"p4runtime/config/system": {{"deviceId": 1, "forwardingPipelineConfigFilePath": "{}"{}}},
                "p4runtime/config/agent": {{"p4InfoJsonPath": "{}", "deviceJsonPath": "{}"}},
                "p4runtime/config/security": {{{}}}}})",
            KORVEL_ROUTER_PIPELINE, system, directory_.file("p4info"), directory_.file("device"),
            security)});
    agent_->start();
  }
  std::string portMember() const { return fmt::format(R"(, "grpcServerPort": {})", port_); }
  std::string filesMember() const {
    return fmt::format(R"("certificate": "{}", "key": "{}", "clientCa": "{}")",
                       directory_.file("switch.pem"), directory_.file("switch.key"),
                       certificates_.file("ca.pem"));
  }
  void certificatesAre() {
    certificates_.certificateIs(
        {.name = "switch", .subject = "/CN=switch-1", .alternatives = "IP:127.0.0.1"});
    certificates_.certificateIs({.name = "controller", .subject = "/CN=controller-1"});
    certificates_.certificateIs({.name = "nobody"});
    for (const char* name : {"switch.pem", "switch.key"}) {
      std::filesystem::copy_file(certificates_.file(name), directory_.file(name));
    }
  }
  std::shared_ptr<grpc::ChannelCredentials> tls(const std::string& name) const {
    return grpc::SslCredentials({.pem_root_certs = certificates_.bytes("ca.pem"),
                                 .pem_private_key = certificates_.bytes(name + ".key"),
                                 .pem_cert_chain = certificates_.bytes(name + ".pem")});
  }
  bool statusSays(const std::string& text) {
    return waitUntil(
        [&] { return agent_->korvel({"status"}).output.find(text) != std::string::npos; },
        agent_->process().descriptor());
  }
  bool logSays(const std::string& text) {
    return waitUntil([&] { return agent_->korvel({"log"}).output.find(text) != std::string::npos; },
                     agent_->process().descriptor());
  }
  std::string target() const { return fmt::format("127.0.0.1:{}", port_); }

  const TempDir directory_;
  Certificates certificates_;
  const uint16_t port_ = freePort();
  int starts_ = 0;
  std::unique_ptr<AgentProcess> agent_;
};

// The agent's own push works with TLS on; files that break later change nothing, and are named.
TEST_F(SecuredAgentTest, ServesThoseWithACertificate) {
  certificatesAre();
  startWith(portMember(), filesMember());
  ASSERT_TRUE(statusSays("server ready               true")) << agent_->output();
  EXPECT_TRUE(statusSays("TLS, clients need a certificate; the server's is CN=switch-1"));
  EXPECT_TRUE(askedAs(target(), tls("controller")).ok());
  EXPECT_EQ(askedAs(target(), grpc::InsecureChannelCredentials()).error_code(),
            StatusCode::UNAVAILABLE);
  EXPECT_EQ(askedAs(target(), tls("nobody")).error_code(), StatusCode::UNAUTHENTICATED);
  EXPECT_TRUE(logSays("push OK agent own device 1"));
  EXPECT_TRUE(logSays("handshake UNAVAILABLE anybody somewhere"));
  EXPECT_TRUE(logSays("call UNAUTHENTICATED anybody somewhere"));
  std::filesystem::copy_file(certificates_.file("controller.key"), directory_.file("switch.key"),
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_TRUE(statusSays("does not belong to the certificate"));
  EXPECT_TRUE(askedAs(target(), tls("controller")).ok());
  EXPECT_TRUE(waitUntil([&] {
    return agent_->output().find("the former certificates stay in force") != std::string::npos;
  }));
  EXPECT_THAT(agent_->korvel({"set", "p4runtime/config/security", "insecure", "true"}).error,
              HasSubstr("read when the agent starts"));
}

// A controller with a certificate, in a role.
class RoleController {
 public:
  RoleController(const std::string& target, const std::shared_ptr<grpc::ChannelCredentials>& who,
                 std::string role)
      : stub_(p4::v1::P4Runtime::NewStub(grpc::CreateChannel(target, who))),
        role_(std::move(role)) {
    context_.set_deadline(std::chrono::system_clock::now() + patience);
    stream_ = stub_->StreamChannel(&context_);
  }

  // OK when it is the primary; else the status with which its stream has ended.
  grpc::Status arbitrate() {
    p4::v1::StreamMessageRequest request;
    request.mutable_arbitration()->set_device_id(1);
    request.mutable_arbitration()->mutable_role()->set_name(role_);
    request.mutable_arbitration()->mutable_election_id()->set_low(1);
    stream_->Write(request);
    p4::v1::StreamMessageResponse response;
    return stream_->Read(&response) ? grpc::Status::OK : stream_->Finish();
  }
  grpc::Status write(const p4::v1::TableEntry& entry) {
    p4::v1::WriteRequest request;
    request.set_device_id(1);
    request.set_role(role_);
    request.mutable_election_id()->set_low(1);
    p4::v1::Update& update = *request.add_updates();
    update.set_type(p4::v1::Update::INSERT);
    *update.mutable_entity()->mutable_table_entry() = entry;
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + patience);
    p4::v1::WriteResponse response;
    return stub_->Write(&context, request, &response);
  }

 private:
  const std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  const std::string role_;
  grpc::ClientContext context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
};

TEST_F(SecuredAgentTest, APolicyTellsControllersApartByTheirCertificates) {
  certificatesAre();
  for (const char* name : {"router", "guard", "stranger"}) {
    certificates_.certificateIs(
        {.name = name, .alternatives = fmt::format("URI:spiffe://lab/{}", name)});
  }
  const std::string policy = directory_.file("policy.json");
  std::ofstream(policy) << R"({"name": "lab", "allow_rules": [
      {"name": "router", "source": {"principals": ["spiffe://lab/router"]},
       "request": {"roles": ["router"], "tables": ["*.ipv4_route"]}},
      {"name": "guard", "source": {"principals": ["spiffe://lab/guard"]},
       "request": {"roles": ["guard"], "tables": ["*.acl"]}}]})";
  startWith(portMember(), fmt::format(R"({}, "policy": "{}")", filesMember(), policy));
  ForwarderProcess forwarder(agent_->options().stateDirectory);
  forwarder.start();
  ASSERT_TRUE(forwarder.waitAttached());
  ASSERT_TRUE(statusSays("server ready               true")) << agent_->output();

  RoleController router(target(), tls("router"), "router");
  ASSERT_TRUE(router.arbitrate().ok());
  RoleController guard(target(), tls("guard"), "guard");
  ASSERT_TRUE(guard.arbitrate().ok());
  const Pipeline pipeline = Router::pipeline();
  EXPECT_TRUE(router.write(Router::route(pipeline, 1, 1)).ok());
  EXPECT_TRUE(guard.write(Router::aclRule(pipeline, 1)).ok());
  const grpc::Status other = router.write(Router::aclRule(pipeline, 2));
  EXPECT_EQ(other.error_code(), StatusCode::UNKNOWN);
  EXPECT_THAT(other.error_details(),
              HasSubstr("table ingress.acl: not to be written by 'spiffe://lab/router' in role "
                        "'router'"));
  EXPECT_TRUE(logSays("device 1 role router: 1 update, 1 refused"));
  // With the role and the election id of another one, and without any right.
  RoleController thief(target(), tls("guard"), "router");
  EXPECT_EQ(thief.arbitrate().error_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(thief.write(Router::route(pipeline, 2, 1)).error_code(), StatusCode::PERMISSION_DENIED);
  RoleController stranger(target(), tls("stranger"), "router");
  EXPECT_THAT(stranger.arbitrate().error_message(), HasSubstr("'spiffe://lab/stranger' may not"));
  EXPECT_EQ(askedAs(target(), tls("stranger")).error_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_TRUE(askedAs(target(), tls("guard")).ok());
}

// With the same certificates and policy.
TEST_F(SecuredAgentTest, OtherMachinesScrapeItByTls) {
  certificatesAre();
  certificates_.certificateIs({.name = "scraper", .subject = "/CN=scraper"});
  const std::string policy = directory_.file("policy.json");
  std::ofstream(policy) << R"({"name": "lab", "allow_rules": [
      {"name": "scrapers", "source": {"principals": ["scraper"]},
       "request": {"paths": ["/metrics"]}}]})";
  startWith(portMember(), fmt::format(R"({}, "policy": "{}")", filesMember(), policy));
  ASSERT_TRUE(statusSays("server ready               true")) << agent_->output();
  const char* path = "p4runtime/config/monitoring";
  EXPECT_EQ(agent_->korvel({"set", path, "address", "0.0.0.0:0"}).error, "") << agent_->output();
  const char* status = "p4runtime/status/monitoring";
  EXPECT_EQ(agent_->korvel({"get", status, "security"}).output,
            "TLS, clients need a certificate\n");
  const std::string address = agent_->korvel({"get", status, "address"}).output;
  const int port = std::stoi(address.substr(address.rfind(':') + 1));
  const auto scraped = [&](const std::string& name) {
    httplib::SSLClient client("127.0.0.1", port, certificates_.file(name + ".pem"),
                              certificates_.file(name + ".key"));
    client.set_ca_cert_path(certificates_.file("ca.pem").c_str());
    const auto answer = client.Get("/metrics");
    return answer ? std::to_string(answer->status) + answer->body : "none";
  };
  EXPECT_THAT(scraped("scraper"), HasSubstr("\nkorvel_ready "));
  EXPECT_EQ(scraped("controller"), "403the policy does not let \"controller-1\" see /metrics\n");
}

TEST_F(SecuredAgentTest, SaysThatItIsInsecureWhereItWasToldToBe) {
  startWith(portMember() + R"(, "grpcServerAddress": "0.0.0.0")", R"("insecure": true)");
  ASSERT_TRUE(statusSays("INSECURE: neither encrypted nor authenticated")) << agent_->output();
  EXPECT_TRUE(
      waitUntil([&] { return agent_->output().find("server: INSECURE") != std::string::npos; }));
}

TEST_F(SecuredAgentTest, DoesNotStartWithLessThanItWasToldToHave) {
  certificatesAre();
  const std::string open = R"(, "grpcServerAddress": "::")";
  const struct {
    const char* what;
    std::string system;
    std::string security;
    const char* message;
  } cases[] = {
      {"open to all, without a word", open, "", "set certificate, key and clientCa for TLS, or"},
      {"a file that is not there", "", R"("certificate": "/a", "key": "/b", "clientCa": "/c")",
       "certificate /a: No such file"},
      {"no authority", open, R"("certificate": "/a", "key": "/b")", "clientCa is missing"},
      {"both", open, filesMember() + R"(, "insecure": true)", "insecure contradicts certificate"},
      {"a bad mode", "", R"("unixSocket": "/tmp/a", "unixMode": "rw")", "unixMode rw is no mode"},
      {"a bad owner", "", R"("unixSocket": "/tmp/a", "unixOwner": ":no-such")", "no group no-such"},
      {"a relative path", "", R"("unixSocket": "unix:a")", "no absolute path"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    startWith(portMember() + c.system, c.security);
    EXPECT_EQ(agent_->process().exitStatus(), failed);
    EXPECT_THAT(agent_->output(), HasSubstr(c.message));
  }
}

TEST_F(SecuredAgentTest, ListensOnAUnixSocketAlone) {
  const std::string path = directory_.file("p4.sock");
  startWith(R"(, "grpcServerPort": 0)",
            fmt::format(R"("unixSocket": "unix:{}", "unixMode": "0660")", path));
  ASSERT_TRUE(statusSays("server ready               true")) << agent_->output();
  EXPECT_TRUE(statusSays("unix:" + path));
  EXPECT_TRUE(askedAs("unix:" + path, grpc::InsecureChannelCredentials()).ok());
  EXPECT_EQ(agent_->korvel({"stop"}).exit, ExitStatus{.code = 0});
  EXPECT_EQ(agent_->process().exitStatus(), ExitStatus{.code = 0});
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
