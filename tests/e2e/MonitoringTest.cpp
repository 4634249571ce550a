// Metrics and the page's data of a running agent.
#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "platform/vela/Json.h"
#include "tests/e2e/Switch.h"

using namespace TestSupport;
using testing::HasSubstr;
using testing::Not;

namespace {

class Monitored : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tested.start());
    ASSERT_TRUE(tested.insertRoutes(0, 40, 1).ok());
    addressIs("127.0.0.1:0");
    ASSERT_NE(address(), "");
  }
  void addressIs(const std::string& address) {
    const auto told =
        tested.agent.korvel({"set", "p4runtime/config/monitoring", "address", address});
    EXPECT_EQ(told.exit.code, 0) << told.error;
  }
  std::string statusOf(const char* attribute) {
    const auto told = tested.agent.korvel({"get", "p4runtime/status/monitoring", attribute});
    return told.output.substr(0, told.output.find('\n'));
  }
  std::string address() { return statusOf("address"); }
  std::string get(const std::string& path, const std::string& accept = "") {
    httplib::Client client("http://" + address());
    const auto answer = client.Get(path, httplib::Headers{{"Accept", accept}});
    return answer && answer->status == 200 ? answer->body : "no answer";
  }

  Switch tested;
};

TEST_F(Monitored, ShowsWritesTablesAndRows) {
  EXPECT_FALSE(tested.insertRoutes(5, 6, 1).ok()) << "it is there already";
  const std::string metrics = get("/metrics", "application/openmetrics-text");
  const std::string table = Router::rowTable(Router::routeTable);
  EXPECT_THAT(metrics, HasSubstr("korvel_table_entries{table=\"" + table + "\"} 40\n"));
  EXPECT_THAT(metrics, HasSubstr("korvel_updates_total{code=\"ALREADY_EXISTS\"} 1\n"));
  EXPECT_THAT(metrics, HasSubstr("korvel_forwarding_agents 1\n"));
  EXPECT_THAT(metrics, HasSubstr("korvel_ready 1\n"));
  EXPECT_THAT(metrics, HasSubstr("korvel_write_stage_seconds_count{stage=\"hardware\"}"));
  EXPECT_THAT(metrics, Not(HasSubstr("korvel_write_stage_seconds_count{stage=\"hardware\"} 0\n")));
  EXPECT_THAT(metrics, HasSubstr("korvel_role_streams{role=\"\"} 1\n"));
  EXPECT_THAT(metrics, HasSubstr("korvel_role_has_primary{role=\"\"} 1\n"));
  EXPECT_THAT(metrics, testing::EndsWith("\n# EOF\n"));

  const Vela::Json status = Vela::parseJson(get("/status.json"));
  ASSERT_TRUE(status);
  EXPECT_GT(cJSON_GetArraySize(Vela::jsonArray(status.get(), "tables")), 1);
  EXPECT_EQ(cJSON_GetArraySize(Vela::jsonArray(status.get(), "forwardingAgents")), 1);

  const cJSON* controllers = Vela::jsonArray(status.get(), "controllers");
  ASSERT_EQ(cJSON_GetArraySize(controllers), 1);
  const cJSON* controller = cJSON_GetArrayItem(controllers, 0);
  EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(controller, "primary")));
  EXPECT_THAT(Vela::jsonString(controller, "address").value_or(""), HasSubstr("127.0.0.1:"));
  EXPECT_GT(Vela::jsonNumber(controller, "primarySince").value_or(0), 1'700'000'000u);

  const auto rows = [&](const std::string& wanted) {
    const Vela::Json found = Vela::parseJson(get("/rows.json?table=" + table + "&find=" + wanted));
    EXPECT_TRUE(found);
    return std::pair(cJSON_GetArraySize(Vela::jsonArray(found.get(), "rows")),
                     Vela::jsonNumber(found.get(), "looked").value_or(0));
  };
  EXPECT_EQ(rows(""), std::pair(40, 40u));
  EXPECT_EQ(rows("no%20such%20text"), std::pair(0, 40u));
  EXPECT_EQ(get("/rows.json?table=nowhere"), "{}");
}

TEST_F(Monitored, TellsWhyAnAddressIsNotServedAndGoesOn) {
  addressIs("0.0.0.0:9464");
  EXPECT_EQ(address(), "");
  EXPECT_THAT(statusOf("trouble"), HasSubstr("0.0.0.0"));
  EXPECT_TRUE(tested.insertRoutes(40, 41, 1).ok());
  addressIs("");
  EXPECT_EQ(statusOf("trouble"), "");
}

// A browser makes the page, where one is installed.
TEST_F(Monitored, ThePageShowsTheSwitch) {
  if (std::system("command -v chromium >/dev/null") != 0) GTEST_SKIP() << "no chromium here";
  const std::string file = tested.directory().path() + "/page";
  const std::string command =
      "HOME=" + tested.directory().path() +
      " timeout 60 chromium --headless=new --no-sandbox --disable-gpu --virtual-time-budget=5000"
      " --dump-dom http://" +
      address() + "/ >" + file + " 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::ifstream stream(file);
  const std::string page(std::istreambuf_iterator<char>(stream), {});
  EXPECT_THAT(page, HasSubstr(">serving</span>"));
  EXPECT_THAT(page, HasSubstr(Router::rowTable(Router::routeTable) + "</button>"));
  EXPECT_THAT(page, HasSubstr(">40</td>"));
  EXPECT_THAT(page, HasSubstr("up to date"));
  EXPECT_THAT(page, HasSubstr(">primary since "));
}

// Dashboard and alerts name metrics that there are.
TEST_F(Monitored, ExamplesNameMetricsThatThereAre) {
  const std::string metrics = get("/metrics");
  for (const char* file : {"alerts.yml", "dashboard.json"}) {
    std::ifstream stream(std::string(KORVEL_EXAMPLES) + "/monitoring/" + file);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    const std::regex name("korvel_[a-z_]+");
    size_t found = 0;
    for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at, ++found) {
      const std::string metric = std::regex_replace(at->str(), std::regex("_bucket$"), "");
      EXPECT_THAT(metrics, HasSubstr("# TYPE " + metric + " ")) << file;
    }
    EXPECT_GT(found, 5u) << file;
  }
}

// The checker of the monitoring system that most people use, where it is installed.
TEST_F(Monitored, MetricsPassTheChecker) {
  if (std::system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "no promtool here";
  const std::string file = tested.directory().path() + "/metrics";
  std::ofstream(file) << get("/metrics");
  EXPECT_EQ(std::system(("promtool check metrics <" + file + " >" + file + ".told 2>&1").c_str()),
            0)
      << std::ifstream(file + ".told").rdbuf();
}

}  // namespace
