// Who gets in, with the whole agent: TLS, addresses that are refused, the Unix socket.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/AgentProcess.h"
#include "tests/support/Certificates.h"
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
  EXPECT_THAT(agent_->korvel({"log", "-n", "1"}).output, HasSubstr("push OK agent own device 1"));
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
