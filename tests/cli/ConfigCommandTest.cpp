// 'korvel config' as people type it, and that its words about settings are true.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>

#include "platform/vela/Json.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using TestSupport::CommandResult;

class ConfigCommand : public testing::Test {
 protected:
  static CommandResult config(std::vector<std::string> words) {
    words.insert(words.begin(), {TestSupport::binaryPath("korvel"), "config"});
    return TestSupport::run(words);
  }
  CommandResult check(const std::string& text) const {
    const std::string file = folder.file("agent.json");
    std::ofstream(file) << text;
    return config({"check", file});
  }
  static Vela::Json keys() {
    Vela::Json all = Vela::parseJson(config({"keys", "--json"}).output);
    EXPECT_TRUE(cJSON_IsArray(all.get()));
    return all;
  }

  const TestSupport::TempDir folder;
};

std::string text(const cJSON& object, const char* name) {
  return Vela::jsonString(&object, name).value_or("");
}

// Of all keys at once, so that the agent's library is loaded once.
TEST_F(ConfigCommand, DefaultsAndExamplesPassTheCheck) {
  const Vela::Json all = keys();
  for (const char* value : {"default", "example"}) {
    SCOPED_TRACE(value);
    const Vela::Json file(cJSON_CreateObject());
    size_t count = 0;
    for (const cJSON* key : Vela::JsonElements(all.get())) {
      const std::string path = text(*key, "examplePath");
      cJSON* group = cJSON_GetObjectItemCaseSensitive(file.get(), path.c_str());
      if (!group) group = cJSON_AddObjectToObject(file.get(), path.c_str());
      if (text(*key, "attribute") == "insecure") continue;  // contradicts a certificate
      const cJSON* item = cJSON_GetObjectItemCaseSensitive(key, value);
      ASSERT_NE(item, nullptr);
      cJSON_AddItemToObject(group, text(*key, "attribute").c_str(), cJSON_Duplicate(item, true));
      ++count;
    }
    EXPECT_GT(count, 40u);
    const CommandResult done = check(Vela::jsonText(*file));
    EXPECT_EQ(done.exit.code, 0) << done.error;
  }
}

TEST_F(ConfigCommand, TheExampleFilePassesWithAndWithoutItsComments) {
  const std::string example = config({"example"}).output;
  EXPECT_THAT(example, HasSubstr("// \"maxWrites\": 256,\n"));
  EXPECT_EQ(check(example).error, "");
  const std::string all =
      std::regex_replace(example, std::regex("(^|\n)( *)// ( *[\"}])"), "$1$2$3");
  EXPECT_THAT(all, AllOf(HasSubstr("\n    \"maxWrites\": 256,\n"),
                         HasSubstr("/port-mapping/1\": {"), Not(HasSubstr("// \""))));
  EXPECT_EQ(check(all).error, "");
  EXPECT_EQ(check(std::regex_replace(all, std::regex("256,"), "0,")).exit.code, 1);
}

TEST_F(ConfigCommand, FilesThatWeShipPass) {
  for (const char* file : {"packaging/etc/agent.json", "examples/router/agent.json"}) {
    const CommandResult done = config({"check", std::string(KORVEL_ROOT "/") + file});
    EXPECT_EQ(done.exit.code, 0) << done.error;
  }
}

TEST_F(ConfigCommand, ThePageOfTheDocumentationIsTheOneThatTheProgramPrints) {
  const std::string file = KORVEL_ROOT "/docs/configuration.md";
  EXPECT_TRUE(TestSupport::fileText(file) == config({"doc"}).output)
      << "write it again: korvel config doc > docs/configuration.md";
}

TEST_F(ConfigCommand, AllFaultsAreNamedAtOnce) {
  const CommandResult done = check(R"({
    // Each line has a fault.
    "p4runtime/config/sytem": {},
    "p4runtime/config/system": {"maxWrites": 0, "devicId": 1, "grpcServerPort": 70000},
    "p4runtime/config/agent": {"batchTimeout": 0},
    "p4runtime/config/port-mapping/1": {"intf": 5},
    "p4runtime/config/port-maping/2": {"intf": "eth1"},
  })");
  EXPECT_EQ(done.exit.code, 1);
  for (const char* part :
       {"did you mean \"p4runtime/config/system\"?", "maxWrites 0 is out of range",
        "did you mean \"deviceId\"?", "not '70000'; for example 9559", "from 1 to 3600, not '0'",
        "found a number; for example \"eth1\"",
        "did you mean \"p4runtime/config/port-mapping/2\"?"}) {
    EXPECT_THAT(done.error, HasSubstr(part));
  }
  EXPECT_THAT(check("{\n// x\n\"p4runtime/config/system\": [}").error, HasSubstr("line 3: "));
}

TEST_F(ConfigCommand, SettingsThatContradictEachOtherAreFaults) {
  const struct {
    const char* what;
    const char* file;
    const char* fault;  // empty: none
  } cases[] = {
      {"open without a word", R"("p4runtime/config/system": {"grpcServerAddress": "0.0.0.0"})",
       "agent.json: p4runtime/config/security: grpcServerAddress 0.0.0.0 is open to other "
       "machines"},
      {"open with a word",
       R"("p4runtime/config/system": {"grpcServerAddress": "0.0.0.0"},
          "p4runtime/config/security": {"insecure": true})",
       ""},
      {"half of TLS", R"("p4runtime/config/security": {"certificate": "/a"})", "key is missing"},
      {"a socket's mode", R"("p4runtime/config/security": {"unixSocket": "/a", "unixMode": "rw"})",
       "unixMode rw is no mode"},
      {"users of another machine",
       R"("p4runtime/config/security": {"unixSocket": "/a", "unixOwner": "no-such"})", ""},
      {"monitoring without a port", R"("p4runtime/config/monitoring": {"address": "::1"})",
       "p4runtime/config/monitoring: '::1' is no HOST:PORT"},
      {"monitoring for others, insecure",
       R"("p4runtime/config/monitoring": {"address": "192.0.2.1:9464"},
          "p4runtime/config/security": {"insecure": true})",
       "192.0.2.1 is open to other machines, which need TLS"},
      {"two ports of an interface",
       R"("p4runtime/config/port-mapping/1": {"intf": "eth1"},
          "p4runtime/config/port-mapping/2": {"intf": "eth1"})",
       "port-mapping/2: eth1 is the interface of port 1 already"},
      {"ports without an interface",
       R"("p4runtime/config/port-mapping/1": {}, "p4runtime/config/port-mapping/2": {})", ""},
      {"a name without a number", R"("p4runtime/config/translation/t": {"names": "a=1 b"})",
       "translation/t: \"b\": it is not of the form NAME=NUMBER"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CommandResult done = check(std::string("{") + c.file + "}");
    EXPECT_EQ(done.exit.code, *c.fault ? 1 : 0);
    EXPECT_EQ(done.error.empty(), *c.fault == 0) << done.error;
    EXPECT_THAT(done.error, HasSubstr(c.fault));
  }
}

TEST_F(ConfigCommand, KeysAreFoundByAWord) {
  EXPECT_THAT(config({"keys", "ARBITRATION"}).output,
              AllOf(HasSubstr("p4runtime/config/system\n  arbitrationTimeout: number from 0.1 to "
                              "3600, in seconds; default 10; heeded at once\n"),
                    Not(HasSubstr("maxWrites"))));
  const CommandResult none = config({"keys", "nosuchword"});
  EXPECT_EQ(none.exit.code, 1);
  EXPECT_THAT(none.error, HasSubstr("no key has to do with 'nosuchword'"));
}

}  // namespace
