// The configuration file, read again while all runs, and its faults. The differences that are
// applied have their test in redis/, over both providers.
#include "platform/orrery/ConfigFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/orrery/Config.h"
#include "platform/orrery/EntityTypes.h"
#include "tests/platform/orrery/Support.h"
#include "tests/support/TempDir.h"

namespace Orrery {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

// Its setting "cookie" is heeded by a start alone.
class ConfigFileTest : public testing::Test, public DatabaseFixture {
 protected:
  ConfigFileTest() {
    TheEntityTypes().typeIs<Port>("Test::Port");
    port = portIs("config/port");
    database->entityIs("ports", Vela::make<Ports>("ports"));
    write(R"({"config/port": {"mtuBytes": 9000, "cookie": 5, "loss": 0.5},
              "ports/p1": {"alias": "one"}})");
    file.load();
    database->settingCheckIs([](const auto&, const auto& attribute, const auto&) {
      return attribute.name() == std::string("cookie") ? Vela::Outcome::failure("a start reads it")
                                                       : Vela::Outcome();
    });
  }

  void write(const std::string& text) { std::ofstream(folder.file("c.json")) << text; }
  std::vector<std::string> reloaded(const std::string& text) {
    write(text);
    return file.reload();
  }
  Vela::Ptr<Vela::Entity> at(const std::string& path) { return database->entity(path); }

  TestSupport::TempDir folder;
  Vela::Ptr<Port> port;
  LayeredConfig layers{*database};
  ConfigFile file{layers, folder.file("c.json")};
  const Vela::ActivityLock lock_;
};

TEST_F(ConfigFileTest, NamesWhatOnlyAStartHeedsEachTime) {
  const std::string text = R"({"config/port": {"mtuBytes": 9000, "cookie": 6, "loss": 0.5},
                               "ports/p1": {"alias": "one"}})";
  const auto line = EndsWith("config/port cookie stays 5: a start reads it");
  EXPECT_THAT(reloaded(text), ElementsAre(line));
  EXPECT_THAT(file.reload(), ElementsAre(line));
  EXPECT_EQ(port->cookie(), 5);
}

TEST_F(ConfigFileTest, AFaultyFileChangesNothing) {
  for (const char* text : {R"({"config/port": {"mtuBytes": 1, "no": 1}})", R"({"config/none": {}})",
                           R"({"config/port": {"mtuBytes": 1}, "ports/q": {}})", "{", "[]"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(reloaded(text), ConfigError);
    EXPECT_EQ(port->mtuBytes(), 9000);
    EXPECT_TRUE(at("ports/p1"));
  }
}

TEST_F(ConfigFileTest, ACheckNamesAllFaultsAndTheNearestNames) {
  write(R"({"config/prot": {}, "config/port": {"mtuByte": 1, "enabled": 7, "alias": "x"},
            "ports/q": {}, "nothing/like/it": {"a": 1}})");
  EXPECT_THAT(
      file.faults(),
      ElementsAre(
          AllOf(HasSubstr("\"config/prot\" is no path"), EndsWith("did you mean \"config/port\"?")),
          AllOf(HasSubstr("\"mtuByte\" is no"), EndsWith("did you mean \"mtuBytes\"?")),
          HasSubstr("\"enabled\": expected a value of type bool"),
          HasSubstr("a port's name begins with p"),
          AllOf(HasSubstr("\"nothing/like/it\" is no path"), Not(HasSubstr("mean")))));
  EXPECT_EQ(port->alias(), "");
  write("{");
  EXPECT_THAT(file.faults(), ElementsAre(HasSubstr("line 1")));
}

}  // namespace
}  // namespace Orrery
