// Who gets an answer from the monitoring, and on which addresses it listens.
#include "P4Runtime/monitoring/MonitoringServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <stdexcept>

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
    const MonitoringServer server(address, contents());
    return "";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(MonitoringServer, ServesThisMachineAlone) {
  for (const char* address :
       {"", "9464", ":9464", "127.0.0.1:", "127.0.0.1:66000", "127.0.0.1:x"}) {
    EXPECT_THAT(whyNot(address), HasSubstr("is no HOST:PORT")) << address;
  }
  for (const char* address : {"0.0.0.0:0", "[::]:0", "192.0.2.1:0", "example.org:0"}) {
    EXPECT_THAT(whyNot(address), HasSubstr("is not this machine's own")) << address;
  }
  const MonitoringServer server("127.0.0.1:0", contents());
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
  EXPECT_THAT(get("/nowhere"), StartsWith("404"));
  EXPECT_THAT(get("/status.json", {{"Host", "evil.example:80"}}), StartsWith("403"))
      << "a page of another site, which has this address by a name of its own";
  EXPECT_THAT(get("/status.json", {{"Host", "localhost:1"}}), StartsWith("200"));
}

}  // namespace
}  // namespace P4Runtime
