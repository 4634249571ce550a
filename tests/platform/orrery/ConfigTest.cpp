// The configuration file: the attributes it sets, and the one line about its fault.
#include "platform/orrery/Config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/orrery/Settings.h"
#include "tests/platform/orrery/Support.h"

namespace Orrery {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ConfigTest : public testing::Test, public DatabaseFixture {
 protected:
  ConfigTest() { port = portIs("config/port"); }

  std::string trouble(const std::string& text) {
    try {
      loadConfigText(*database, text, "agent.json");
    } catch (const ConfigError& e) {
      return e.what();
    }
    return "none";
  }

  Vela::Ptr<Port> port;
  const Vela::ActivityLock lock_;
};

TEST_F(ConfigTest, SetsTheAttributesOfEachPath) {
  EXPECT_EQ(trouble(R"({"config/port": {"enabled": true, "mtuBytes": 9000, "loss": 0.25,
                        "cookie": "18446744073709551615", "alias": "uplink"}})"),
            "none");
  EXPECT_TRUE(port->enabled());
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_EQ(port->loss(), 0.25);
  EXPECT_EQ(port->cookie(), UINT64_MAX);
  EXPECT_EQ(port->alias(), "uplink");
  EXPECT_EQ(trouble("{}"), "none");
}

TEST_F(ConfigTest, FaultsAreNamedInOneLine) {
  const struct {
    const char* text;
    const char* trouble;
  } cases[] = {
      {"", "line 1: expected a JSON object"},
      {"{\n\"config/port\": {\n\"mtuBytes\": }}", "line 3: expected a JSON object"},
      {"{} {}", "line 1: expected a JSON object"},
      {"[1]", "expected a JSON object, keys are paths, found an array"},
      {R"({"config/none": {}})", "\"config/none\" is no path"},
      {R"({"config/port": 5})",
       "\"config/port\": expected an object of attributes, found a number"},
      {R"({"config/port": {"mtu": 5}})",
       "\"mtu\" is no attribute of Test::Port; it has enabled, mtuBytes, cookie, loss, alias"},
      {R"({"config/port": {"mtuBytes": "5"}})",
       "\"mtuBytes\": expected a value of type uint16, found a string"},
      {R"({"config/port": {"mtuBytes": 1.5}})", "expected a value of type uint16, found a number"},
      {R"({"config/port": {"mtuBytes": 70000}})", "mtuBytes of config/port takes a uint16, not"},
      {R"({"config/port": {"mtuBytes": -1}})", "takes a uint16, not '-1'"},
      {R"({"config/port": {"mtuBytes": 1e300}})", "expected a value of type uint16"},
      {R"({"config/port": {"cookie": 18446744073709551615}})", "expected a value of type uint64"},
      {R"({"config/port": {"enabled": 1}})", "expected a value of type bool, found a number"},
      {R"({"config/port": {"alias": null}})", "expected a value of type string, found null"},
      {R"({"config/port": {"loss": "high"}})", "expected a value of type number, found a string"},
      {R"({"config/port": {"drops": 1}})", "read-only"},
      {R"({"config/port": {"loss": 1, "loss": 2}})", "\"loss\" stands there twice"},
      {R"({"config/port": {}, "config/port": {}})", "\"config/port\" stands there twice"},
      {R"({"config/port": {"neighbour": {"1": "x"}}})", "expected a value of type collection"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_THAT(trouble(c.text), AllOf(testing::StartsWith("agent.json: "), HasSubstr(c.trouble),
                                       Not(HasSubstr("\n"))));
  }
  EXPECT_THAT(trouble(std::string(100000, '[')), HasSubstr("line 1"));
  EXPECT_THAT(trouble(std::string("{}\0{}", 5)), HasSubstr("expected a JSON object"));
}

TEST_F(ConfigTest, MakesWhatItsDirectoryMakes) {
  const auto ports = Vela::make<Ports>("ports");
  database->entityIs("ports", ports);
  std::string seen;
  const auto observation = ports->entityCollection().observeKeys([&](const std::string& name) {
    seen += name + dynamic_cast<Port&>(*ports->entity(name)).alias();
  });
  EXPECT_EQ(trouble(R"({"ports/p1": {"alias": "uplink"}, "ports/p2": {}})"), "none");
  EXPECT_EQ(seen, "p1uplinkp2");
  EXPECT_THAT(trouble(R"({"ports/1": {}})"), HasSubstr("\"ports/1\": nothing can be made at"));
  EXPECT_THAT(trouble(R"({"ports/p3": {"colour": 1}})"), HasSubstr("no attribute of Test::Port"));
  EXPECT_THAT(trouble(R"({"config/p1": {}})"), HasSubstr("is no path"));
  EXPECT_THAT(ports->entityNames(), testing::ElementsAre("p1", "p2"));
}

TEST_F(ConfigTest, SaysWhatMayHaveBeenMeant) {
  constexpr Setting portSettings[] = {
      {.attribute = "mtuBytes", .example = "9000", .least = 64, .most = 9216},
      {.attribute = "alias", .example = R"("uplink")"}};
  constexpr Setting linkSettings[] = {{.attribute = "speed", .example = "10"}};
  const SettingGroup groups[] = {{.path = "ports/NAME", .name = "p1", .settings = portSettings},
                                 {.path = "config/link", .settings = linkSettings}};
  TheSettingsAre(groups);
  database->entityIs("ports", Vela::make<Ports>("ports"));
  const struct {
    const char* text;
    const char* trouble;
  } cases[] = {
      {R"({"config/prot": {}})", "did you mean \"config/port\"?"},
      {R"({"port/p7": {}})", "did you mean \"ports/p7\"?"},
      {R"({"config": {"port": {"loss": 1}}})", "write \"config/port\" as one key"},
      {R"({"config": {"prot": {"loss": 1}}})", "did you mean \"config/port\"?"},
      {R"({"config/port": {"mtubytes": 5}})", "did you mean \"mtuBytes\"?"},
      {R"({"config/port": {"speed": 5}})", "; \"config/link\" has that one"},
      {R"({"ports/p1": {"alias": 5}})", "found a number; for example \"uplink\""},
      {R"({"ports/p1": {"mtuBytes": -5}})", "mtuBytes -5 is out of range; choose 64 to 9216"},
      {R"({"ports/p1": {"mtuBytes": 9217}})", "mtuBytes 9217 is out of range"},
      {R"({"ports/p1": {"mtuBytes": 9216}, "ports/p2": {"mtuBytes": 64}})", "none"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_THAT(trouble(c.text), HasSubstr(c.trouble));
  }
  TheSettingsAre({});
}

TEST_F(ConfigTest, AFileThatCannotBeReadIsNamed) {
  for (const char* name : {"/nonexistent/agent.json", "/"}) {
    try {
      loadConfig(*database, name);
      FAIL() << name;
    } catch (const ConfigError& e) {
      EXPECT_THAT(e.what(), AllOf(testing::StartsWith(name), HasSubstr("cannot read")));
    }
  }
}

}  // namespace
}  // namespace Orrery
