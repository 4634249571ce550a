// Who gets an answer from the monitoring, and on which addresses it listens.
#include "P4Runtime/monitoring/MonitoringServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "PI/proto/pi_server_policy.h"
#include "PI/proto/pi_server_shared.h"
#include "tests/support/Certificates.h"

namespace P4Runtime {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

MonitoringContents contents() {
  return {[](bool isOpen) { return std::string(isOpen ? "open" : "plain"); },
          [] { return std::string("{}"); },
          [](const std::string& table, const std::string& wanted) { return table + "/" + wanted; }};
}

std::string whyNot(const std::string& address) {
  try {
    const MonitoringServer server(address, contents(), [] { return nullptr; });
    return "";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(MonitoringServer, ServesThisMachineAloneWithoutCertificates) {
  for (const char* address :
       {"", "9464", ":9464", "127.0.0.1:", "127.0.0.1:66000", "127.0.0.1:x", "::1", "::1:9464"}) {
    EXPECT_THAT(whyNot(address), HasSubstr("is no HOST:PORT")) << address;
  }
  for (const char* address : {"0.0.0.0:0", "[::]:0", "192.0.2.1:0", "example.org:0"}) {
    EXPECT_THAT(whyNot(address), HasSubstr("is open to other machines, which need TLS")) << address;
  }
  const MonitoringServer server("127.0.0.1:0", contents(), [] { return nullptr; });
  EXPECT_FALSE(server.isSecured());
  EXPECT_THAT(server.address(), StartsWith("127.0.0.1:"));
  httplib::Client client("http://" + server.address());
  const auto get = [&](const std::string& path, const httplib::Headers& headers = {}) {
    const auto answer = client.Get(path, headers);
    if (!answer) return std::string("no answer");
    return std::to_string(answer->status) + " " + answer->get_header_value("Content-Type") + " " +
           answer->body;
  };
  EXPECT_EQ(get("/metrics"), "200 text/plain; version=0.0.4; charset=utf-8 plain");
  EXPECT_EQ(get("/metrics", {{"Accept", "application/openmetrics-text;version=1.0.0"}}),
            "200 application/openmetrics-text; version=1.0.0; charset=utf-8 open");
  EXPECT_EQ(get("/rows.json?table=a%20b&find=c"), "200 application/json a b/c");
  EXPECT_THAT(get("/"), HasSubstr("<!DOCTYPE html>"));
  for (const char* path : {"/nowhere", "/rows_json", "/status_json", "/metrics/", "//", "/page"}) {
    EXPECT_THAT(get(path), StartsWith("404")) << path;
  }
  EXPECT_THAT(get("/status.json", {{"Host", "evil.example:80"}}), StartsWith("403"))
      << "a page of another site, which has this address by a name of its own";
  EXPECT_THAT(get("/status.json", {{"Host", "localhost:1"}}), StartsWith("200"));
}

// Its files are copies, to be replaced.
class SecuredMonitoring : public testing::Test {
 protected:
  SecuredMonitoring() {
    made_.certificateIs({.name = "switch", .alternatives = "IP:127.0.0.1"});
    made_.certificateIs({.name = "scraper", .alternatives = "URI:spiffe://lab/scraper"});
    made_.crlIs();
    filesAre("switch", "ca");
    server_.emplace("0.0.0.0:0", contents(), [this] {
      return pi::ServerTls::make({.certificate = file("own.pem").c_str(),
                                  .key = file("own.key").c_str(),
                                  .client_ca = file("clients.pem").c_str(),
                                  .crl = file("clients.crl").c_str()});
    });
  }
  ~SecuredMonitoring() override { PIGrpcServerPolicyIs(nullptr, 0, nullptr); }

  std::string file(const std::string& name) const { return folder_.file(name); }
  void fileIs(const std::string& name, const std::string& made) const {
    std::filesystem::copy_file(made_.file(made), file(name),
                               std::filesystem::copy_options::overwrite_existing);
  }
  void filesAre(const std::string& own, const std::string& authority) const {
    fileIs("own.pem", own + ".pem");
    fileIs("own.key", own + ".key");
    fileIs("clients.pem", authority + ".pem");
    fileIs("clients.crl", authority + ".crl");
  }
  int port() const {
    const std::string address = server_->address();
    return std::stoi(address.substr(address.rfind(':') + 1));
  }
  // On a new connection; what the client trusts is `authority`.
  std::string get(const std::string& client, const std::string& authority = "ca",
                  const std::string& path = "/metrics") const {
    httplib::SSLClient asking("127.0.0.1", port(), made_.file(client + ".pem"),
                              made_.file(client + ".key"));
    asking.set_ca_cert_path(made_.file(authority + ".pem").c_str());
    const auto answer = asking.Get(path);
    return answer ? std::to_string(answer->status) + " " + answer->body : "no answer";
  }

  TestSupport::Certificates made_;
  TestSupport::TempDir folder_;
  std::optional<MonitoringServer> server_;
};

TEST_F(SecuredMonitoring, ServesOtherMachinesWithACertificate) {
  made_.certificateIs({.name = "expired", .subject = "/CN=a", .isExpired = true});
  made_.certificateIs({.name = "nobody"});
  made_.certificateIs({.name = "two", .alternatives = "URI:a:b,URI:a:c"});
  made_.authorityIs("other");
  made_.certificateIs({.name = "stranger", .subject = "/CN=a", .authority = "other"});
  EXPECT_TRUE(server_->isSecured());
  EXPECT_EQ(get("scraper"), "200 plain");
  EXPECT_EQ(get("expired"), "no answer");
  EXPECT_EQ(get("stranger"), "no answer");
  EXPECT_EQ(get("scraper", "other"), "no answer") << "the client does not know the server";
  EXPECT_THAT(get("nobody"), StartsWith("403 the client's certificate names nobody"));
  EXPECT_THAT(get("two"), StartsWith("403 the client's certificate has 2 URI names"));
  httplib::SSLClient nameless("127.0.0.1", port());
  nameless.enable_server_certificate_verification(false);
  EXPECT_FALSE(nameless.Get("/metrics"));
  httplib::Client plain("127.0.0.1", port());
  EXPECT_FALSE(plain.Get("/metrics"));
}

TEST_F(SecuredMonitoring, FollowsItsFiles) {
  made_.authorityIs("next");
  made_.crlIs("next");
  made_.certificateIs({.name = "switch2", .alternatives = "IP:127.0.0.1", .authority = "next"});
  made_.certificateIs({.name = "scraper2", .subject = "/CN=b", .authority = "next"});
  EXPECT_EQ(get("scraper2", "ca"), "no answer");
  fileIs("own.pem", "switch2.pem");  // without its key
  EXPECT_EQ(get("scraper"), "200 plain") << "the former ones stay in force";
  filesAre("switch2", "next");
  EXPECT_EQ(get("scraper2", "next"), "200 plain");
  EXPECT_EQ(get("scraper", "next"), "no answer");
  made_.revoke("scraper2", "next");
  fileIs("clients.crl", "next.crl");
  EXPECT_THAT(get("scraper2", "next"), HasSubstr("has been revoked"));
}

TEST_F(SecuredMonitoring, AsksThePolicy) {
  made_.certificateIs({.name = "controller", .alternatives = "URI:spiffe://lab/acl"});
  const std::string policy = R"({"name": "p", "allow_rules": [
      {"name": "scrapers", "source": {"principals": ["spiffe://lab/scraper"]},
       "request": {"paths": ["/metrics"]}},
      {"name": "acl", "source": {"principals": ["spiffe://lab/acl"]},
       "request": {"tables": ["acl"]}}]})";
  ASSERT_EQ(PIGrpcServerPolicyIs(policy.data(), policy.size(), "p.json"), 0)
      << PIGrpcServerPolicyError();
  EXPECT_EQ(get("scraper"), "200 plain");
  EXPECT_EQ(get("scraper", "ca", "/rows.json?table=acl"),
            "403 the policy does not let \"spiffe://lab/scraper\" see /rows.json\n");
  EXPECT_THAT(get("controller"), StartsWith("403 the policy does not let"));
  const std::string denial = R"({"name": "p", "deny_rules": [
      {"name": "rows", "request": {"paths": ["/rows.json"]}}],
      "allow_rules": [{"name": "all"}]})";
  ASSERT_EQ(PIGrpcServerPolicyIs(denial.data(), denial.size(), "p.json"), 0);
  EXPECT_EQ(get("scraper"), "200 plain");
  EXPECT_THAT(get("scraper", "ca", "/rows.json"), StartsWith("403"));
  EXPECT_THAT(get("scraper", "ca", "/rows%2ejson"), StartsWith("403"));
  EXPECT_THAT(get("scraper", "ca", "/rows_json"), StartsWith("404"));
  // The same holds on this machine, where nobody is known.
  const MonitoringServer own("127.0.0.1:0", contents(), [] { return nullptr; });
  EXPECT_EQ(httplib::Client("http://" + own.address()).Get("/rows.json")->status, 403);
  PIGrpcServerPolicyIs(nullptr, 0, nullptr);
  EXPECT_EQ(httplib::Client("http://" + own.address()).Get("/metrics")->status, 200);
}

}  // namespace
}  // namespace P4Runtime
