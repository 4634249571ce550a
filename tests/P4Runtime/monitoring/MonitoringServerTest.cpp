// Who gets an answer from the monitoring, and on which addresses it listens.
#include "P4Runtime/monitoring/MonitoringServer.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PI/proto/pi_server_account.h"
#include "PI/proto/pi_server_policy.h"
#include "PI/proto/pi_server_shared.h"
#include "tests/support/Certificates.h"
#include "tests/support/Waiting.h"

namespace P4Runtime {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

MonitoringContents contents() {
  return {[](bool isOpen) { return std::string(isOpen ? "open" : "plain"); },
          [] { return std::string("{}"); },
          [](const std::string& table, const std::string& wanted) { return table + "/" + wanted; }};
}

// A connection to a server on this machine, which says what it is told to say.
class RawClient {
 public:
  // `own`: its address.
  explicit RawClient(int port, const std::string& own = "127.0.0.1")
      : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, own.c_str(), &address.sin_addr), 1);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  ~RawClient() { close(socket_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool sends(const std::string& bytes) const {
    return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
  }
  bool isClosed() const {
    char byte = 0;
    const ssize_t got = recv(socket_, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN);
  }

 private:
  const int socket_;
};

int portOf(const MonitoringServer& server) {
  return std::stoi(server.address().substr(server.address().rfind(':') + 1));
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

TEST(MonitoringServer, EndsARequestThatTricklesIn) {
  const MonitoringServer server(
      "127.0.0.1:0", contents(), [] { return nullptr; }, std::chrono::milliseconds(300));
  const RawClient slow(portOf(server));
  EXPECT_TRUE(slow.sends("GET /metrics HTTP/1.1\r\nX: "));
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    slow.sends("x");
    return slow.isClosed();
  }));
}

TEST(MonitoringServer, TakesARequestOfBoundedSize) {
  const MonitoringServer server(
      "127.0.0.1:0", contents(), [] { return nullptr; }, std::chrono::minutes(5));
  const RawClient large(portOf(server));
  EXPECT_TRUE(large.sends("GET /metrics HTTP/1.1\r\n"));
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    large.sends("X: " + std::string(1000, 'x') + "\r\n");
    return large.isClosed();
  }));
}

TEST(MonitoringServer, SendsTheWholeOnceWhateverRangesAreWanted) {
  const MonitoringServer server("127.0.0.1:0", contents(), [] { return nullptr; });
  httplib::Client client("http://" + server.address());
  for (const char* ranges : {"bytes=0-", "bytes=0-,0-,0-,0-", "bytes=90-"}) {
    const auto answer = client.Get("/metrics", httplib::Headers{{"Range", ranges}});
    ASSERT_TRUE(answer) << ranges;
    EXPECT_EQ(answer->status, 200) << ranges;
    EXPECT_EQ(answer->body, "plain") << ranges;
  }
}

// "monitoring 7 who /metrics: why" of each refusal.
class Accounts {
 public:
  Accounts() {
    PIGrpcServerAccountantIs(
        [](const PIGrpcServerAccount_t* account, void* cookie) {
          EXPECT_TRUE(account->is_refused);
          EXPECT_THAT(account->address, StartsWith("ipv4:127.0.0.1:"));
          auto& self = *static_cast<Accounts*>(cookie);
          const std::lock_guard lock(self.mutex_);
          self.all_.push_back(fmt::format("{} {} {} {}: {}", account->what, account->code,
                                          account->identity, account->detail, account->message));
        },
        this);
  }
  ~Accounts() { PIGrpcServerAccountantIs(nullptr, nullptr); }

  std::vector<std::string> all() {
    const std::lock_guard lock(mutex_);
    return all_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> all_;
};

TEST(MonitoringServer, AccountsForRefusalsOfThisMachine) {
  Accounts accounts;
  const MonitoringServer server("127.0.0.1:0", contents(), [] { return nullptr; });
  httplib::Client client("http://" + server.address());
  EXPECT_TRUE(client.Get("/metrics"));
  EXPECT_TRUE(client.Get("/nowhere"));
  EXPECT_TRUE(client.Get("/metrics", httplib::Headers{{"Host", "evil.example"}}));
  EXPECT_THAT(accounts.all(), testing::ElementsAre(StartsWith("monitoring 7  /metrics: ask for")));
}

// Its files are copies, to be replaced.
class SecuredMonitoring : public testing::Test {
 protected:
  SecuredMonitoring() {
    made_.certificateIs({.name = "switch", .alternatives = "IP:127.0.0.1"});
    made_.certificateIs({.name = "scraper", .alternatives = "URI:spiffe://lab/scraper"});
    made_.crlIs();
    filesAre("switch", "ca");
    serve(std::chrono::seconds(10));
  }
  ~SecuredMonitoring() override { PIGrpcServerPolicyIs(nullptr, 0, nullptr); }

  void serve(std::chrono::milliseconds patience) {
    const auto tls = [this] {
      return pi::ServerTls::make({.certificate = file("own.pem").c_str(),
                                  .key = file("own.key").c_str(),
                                  .client_ca = file("clients.pem").c_str(),
                                  .crl = file("clients.crl").c_str()});
    };
    server_.emplace("0.0.0.0:0", contents(), tls, patience);
  }
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
  int port() const { return portOf(*server_); }
  // On a new connection; what the client trusts is `authority`.
  std::string get(const std::string& client, const std::string& authority = "ca",
                  const std::string& path = "/metrics",
                  const std::string& own = "127.0.0.1") const {
    httplib::SSLClient asking("127.0.0.1", port(), made_.file(client + ".pem"),
                              made_.file(client + ".key"));
    asking.set_interface(own);
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

TEST_F(SecuredMonitoring, AccountsForRefusals) {
  made_.certificateIs({.name = "nobody"});
  made_.certificateIs({.name = "expired", .subject = "/CN=a", .isExpired = true});
  const std::string policy = R"({"name": "p", "allow_rules": [
      {"name": "scrapers", "request": {"paths": ["/metrics"]}}]})";
  ASSERT_EQ(PIGrpcServerPolicyIs(policy.data(), policy.size(), "p.json"), 0);
  Accounts accounts;
  EXPECT_EQ(get("scraper"), "200 plain");
  EXPECT_THAT(get("scraper", "ca", "/rows.json"), StartsWith("403"));
  EXPECT_THAT(get("nobody"), StartsWith("403"));
  EXPECT_EQ(get("expired"), "no answer");
  EXPECT_TRUE(TestSupport::waitUntil([&] { return accounts.all().size() >= 3; }));
  server_.reset();
  EXPECT_THAT(
      accounts.all(),
      testing::ElementsAre(StartsWith("monitoring 7 spiffe://lab/scraper /rows.json: the policy"),
                           StartsWith("monitoring 16  /metrics: the client's certificate names"),
                           StartsWith("handshake 14  : monitoring: ")));
}

TEST_F(SecuredMonitoring, EndsAHandshakeThatTricklesIn) {
  serve(std::chrono::milliseconds(300));
  const RawClient slow(port());
  EXPECT_TRUE(slow.sends(std::string("\x16\x03\x01\x02\x00\x01", 6)));  // a hello of 512 bytes
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    slow.sends("x");
    return slow.isClosed();
  }));
}

// Twice as many silent connections as are served at a time, and more of them than may wait.
TEST_F(SecuredMonitoring, GivesAnAddressAShare) {
  serve(std::chrono::minutes(5));
  std::deque<RawClient> silent;
  for (int i = 0; i < 12; ++i) silent.emplace_back(port());
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    return std::ranges::count_if(silent, &RawClient::isClosed) == 2;
  })) << "two of the address are served, and eight wait";
  EXPECT_EQ(get("scraper", "ca", "/metrics", "127.0.0.2"), "200 plain");
  silent.clear();
  EXPECT_TRUE(TestSupport::waitUntil([&] { return get("scraper") == "200 plain"; }))
      << "its share is free again";
}

// More silent connections of several addresses than are served at a time of each.
TEST_F(SecuredMonitoring, ServesAnAddressBesideSeveralThatHoldTheirShares) {
  serve(std::chrono::minutes(5));
  std::deque<RawClient> silent;
  for (const char* address : {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5"}) {
    for (int i = 0; i < 12; ++i) silent.emplace_back(port(), address);
  }
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    return std::ranges::count_if(silent, &RawClient::isClosed) == 8;
  })) << "two of each address are served, and eight wait";
  EXPECT_EQ(get("scraper"), "200 plain");
}

TEST_F(SecuredMonitoring, MakesAFewResponsesAtATime) {
  std::mutex mutex;
  std::condition_variable changed;
  int making = 0, most = 0, made = 0;
  bool mayGoOn = false;
  MonitoringContents slow = contents();
  slow.metrics = [&](bool) {
    std::unique_lock lock(mutex);
    most = std::max(most, ++making);
    changed.notify_all();
    changed.wait(lock, [&] { return mayGoOn; });
    --making;
    ++made;
    return std::string("slow");
  };
  const MonitoringServer server("127.0.0.1:0", slow, [] { return nullptr; });
  constexpr int clients = 8;
  std::vector<std::thread> asking;
  for (int i = 0; i < clients; ++i) {
    asking.emplace_back([&] {
      const auto answer = httplib::Client("127.0.0.1", portOf(server)).Get("/metrics");
      EXPECT_TRUE(answer && answer->status == 200);
    });
  }
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return making == 4; });
  }
  // The page needs no turn.
  EXPECT_TRUE(httplib::Client("127.0.0.1", portOf(server)).Get("/"));
  {
    const std::lock_guard lock(mutex);
    mayGoOn = true;
  }
  changed.notify_all();
  for (std::thread& one : asking) one.join();
  EXPECT_EQ(made, clients);
  EXPECT_EQ(most, 4);
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
