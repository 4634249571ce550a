// Configuration that changes while all runs: the same, whether a file or a Redis provides it.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/orrery/ConfigFile.h"
#include "tests/platform/orrery/redis/Support.h"

namespace Orrery {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Where an operator writes entities, and has the process read them again.
class Provider {
 public:
  virtual ~Provider() = default;
  virtual void load(const Entities& entities) = 0;
  // Returns what is said about it.
  virtual std::vector<std::string> reloaded(const Entities& entities) = 0;
  // Why settings are not in force.
  virtual std::vector<std::string> troubles(const Entities& entities) = 0;
};

class FileProvider final : public Provider {
 public:
  explicit FileProvider(ConfiguredDatabase& tested) : file_(tested.layers, name()) {}
  void load(const Entities& entities) override {
    write(entities);
    file_.load();
  }
  std::vector<std::string> reloaded(const Entities& entities) override {
    write(entities);
    return file_.reload();
  }
  std::vector<std::string> troubles(const Entities& entities) override {
    write(entities);
    return file_.faults();
  }

 private:
  std::string name() const { return folder_.file("c.json"); }
  void write(const Entities& entities) {
    std::string members;
    for (const auto& [path, json] : entities) {
      members += fmt::format("{}\"{}\": {}", members.empty() ? "" : ", ", path, json);
    }
    std::ofstream(name()) << "{" << members << "}";
  }

  const TestSupport::TempDir folder_;
  ConfigFile file_;
};

// An entity more tells when the others have been read.
class RedisProvider final : public Provider {
 public:
  explicit RedisProvider(ConfiguredDatabase& tested)
      : tested_(tested),
        mark_(tested.portIs("config/mark")),
        part_(tested, server_.address("s1"), folder_.file("copy.json")) {}
  void load(const Entities& entities) override {
    write(entities);
    part_.orrery->load(false, [] { return false; });
    part_.orrery->start();
  }
  std::vector<std::string> reloaded(const Entities& entities) override {
    part_.lines.clear();
    write(entities);
    part_.orrery->reload();
    EXPECT_TRUE(tested_.runUntil([this] { return mark_->mtuBytes() == marks_; }));
    std::erase_if(part_.lines,
                  [](const auto& line) { return line.find("config/mark") != std::string::npos; });
    return part_.lines;
  }
  std::vector<std::string> troubles(const Entities& entities) override {
    reloaded(entities);
    std::vector<std::string> all;
    const auto status = tested_.at("orrery/status/redis");
    for (const auto& [setting, text] : status->attribute("refused")->entryTexts(100)) {
      all.push_back(text);
    }
    return all;
  }

 private:
  void write(const Entities& entities) {
    server_.run({"DEL", "s1/next"});
    std::vector<std::string> command{"HSET", "s1/next", "config/mark",
                                     fmt::format(R"({{"mtuBytes": {}}})", ++marks_)};
    for (const auto& [path, json] : entities) command.insert(command.end(), {path, json});
    server_.run(command);
    server_.run({"RENAME", "s1/next", "s1/config"});
  }

  ConfiguredDatabase& tested_;
  const TestSupport::TempDir folder_;
  TestSupport::RedisServer server_{folder_.path()};
  Vela::Ptr<Port> mark_;
  uint16_t marks_ = 0;
  Part part_;
};

enum class Kind { file, redis };
void PrintTo(Kind kind, std::ostream* out) { *out << (kind == Kind::file ? "file" : "redis"); }

class ConfigProviderTest : public testing::TestWithParam<Kind>, public ConfiguredDatabase {
 protected:
  void SetUp() override {
    if (GetParam() == Kind::file) {
      provider = std::make_unique<FileProvider>(*this);
    } else if (TestSupport::RedisServer::installed()) {
      provider = std::make_unique<RedisProvider>(*this);
    } else {
      GTEST_SKIP() << "redis-server is not installed";
    }
    provider->load(first);
    cookieNeedsStart();
  }
  std::vector<std::string> reloaded(const Entities& entities) {
    return provider->reloaded(entities);
  }

  const Entities first{{"config/port", R"({"mtuBytes": 9000, "cookie": 5, "loss": 0.5})"},
                       {"ports/p1", R"({"alias": "one"})"}};
  std::unique_ptr<Provider> provider;
  const Vela::ActivityLock lock_;
};
INSTANTIATE_TEST_SUITE_P(All, ConfigProviderTest, testing::Values(Kind::file, Kind::redis),
                         testing::PrintToStringParamName());

TEST_P(ConfigProviderTest, AppliesTheDifferences) {
  EXPECT_EQ(port->cookie(), 5) << "a start heeds it";
  EXPECT_THAT(
      reloaded({{"config/port", R"({"mtuBytes": 1600, "cookie": 5, "alias": "up"})"},
                {"ports/p2", R"({"mtuBytes": 9})"}}),
      ElementsAre(EndsWith("config/port loss is 0 now, was 0.5"), EndsWith("ports/p1 is removed"),
                  EndsWith("config/port alias is up now, was "),
                  EndsWith("config/port mtuBytes is 1600 now, was 9000"),
                  EndsWith("ports/p2 mtuBytes is 9 now, was 1500")));
  EXPECT_EQ(port->mtuBytes(), 1600);
  EXPECT_EQ(port->loss(), 0);
  EXPECT_EQ(port->alias(), "up");
  EXPECT_FALSE(at("ports/p1"));
  ASSERT_TRUE(at("ports/p2"));
  EXPECT_EQ(at("ports/p2")->attribute("mtuBytes")->text(), "9");
}

TEST_P(ConfigProviderTest, LeavesAloneWhatOthersHaveSet) {
  port->mtuBytesIs(70);
  database->entityIs("ports/p7", Vela::make<Port>("p7"));
  EXPECT_THAT(reloaded(first), IsEmpty());
  EXPECT_EQ(port->mtuBytes(), 70);
  EXPECT_TRUE(at("ports/p7"));
}

TEST_P(ConfigProviderTest, NamesWhatOnlyAStartHeeds) {
  Entities changed = first;
  changed["config/port"] = R"({"mtuBytes": 9000, "cookie": 6, "loss": 0.5})";
  EXPECT_THAT(reloaded(changed), ElementsAre(EndsWith("cookie stays 5: a start reads it")));
  EXPECT_EQ(port->cookie(), 5);
  EXPECT_THAT(reloaded(first), IsEmpty());
}

TEST_P(ConfigProviderTest, NamesFaultsAndTheNearestNames) {
  const struct {
    const char* path;
    const char* json;
    const char* trouble;
  } cases[] = {
      {"config/prot", "{}", "\"config/prot\" is no path"},
      {"config/prot", "{}", "did you mean \"config/port\"?"},
      {"config/port", R"({"mtuByte": 1})", "did you mean \"mtuBytes\"?"},
      {"config/port", R"({"enabled": 7})", "\"enabled\": expected a value of type bool"},
      {"config/port", R"({"mtuBytes": 70000})", "mtuBytes of config/port takes a uint16, not"},
      {"config/port", R"({"drops": 1})", "read-only"},
      {"config/port", "[]", "expected an object of attributes, found an array"},
      {"config/port", "7", "expected an object of attributes, found a number"},
      {"ports/q", "{}", "a port's name begins with p"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trouble);
    EXPECT_THAT(provider->troubles({{c.path, c.json}, {"ports/p1", R"({"alias": "one"})"}}),
                Contains(HasSubstr(c.trouble)));
  }
}

// A setting that leaves a layer is that of the one below again.
TEST(LayeredConfig, ALaterLayerHidesAnEarlierOne) {
  ConfiguredDatabase tested;
  const Vela::ActivityLock lock;
  const auto file = tested.layers.layerAdd("file");
  const auto above = tested.layers.layerAdd("above");
  const auto mtuBytes = [&tested] { return tested.port->mtuBytes(); };
  tested.layers.layerIs(above, {{"config/port", {{"mtuBytes", "7"}}}});
  tested.layers.layerIs(file, {{"config/port", {{"mtuBytes", "5"}, {"alias", "x"}}}});
  EXPECT_EQ(mtuBytes(), 7);
  EXPECT_EQ(tested.port->alias(), "x");
  const auto lines = tested.layers.layerIs(above, {{"ports/p1", {}}});
  EXPECT_EQ(mtuBytes(), 5);
  EXPECT_TRUE(tested.at("ports/p1"));
  ASSERT_EQ(lines.size(), 1);
  EXPECT_EQ(lines[0].text, "file: config/port mtuBytes is 5 now, was 7");
  tested.layers.layerIs(file, {});
  EXPECT_EQ(mtuBytes(), 1500);
  EXPECT_EQ(tested.port->alias(), "");
}

// A layer had set the default, and left; each later change of it then took back the values that
// others had given since.
TEST(LayeredConfig, ASettingThatHasLeftIsNoLongerItsOwn) {
  ConfiguredDatabase tested;
  const Vela::ActivityLock lock;
  const auto layer = tested.layers.layerAdd("file");
  tested.layers.layerIs(layer, {{"config/port", {{"mtuBytes", "1500"}, {"loss", "0.5"}}}});
  tested.layers.layerIs(layer, {{"config/port", {{"loss", "0.5"}}}});
  tested.port->mtuBytesIs(70);
  tested.layers.layerIs(layer, {{"config/port", {{"loss", "0.25"}}}});
  EXPECT_EQ(tested.port->mtuBytes(), 70);
}

TEST(LayeredConfig, AResetThatIsRefusedIsTriedAgain) {
  ConfiguredDatabase tested;
  const Vela::ActivityLock lock;
  const auto layer = tested.layers.layerAdd("file");
  tested.layers.layerIs(layer, {{"config/port", {{"cookie", "5"}}}});
  tested.cookieNeedsStart();
  for (int i = 0; i < 2; ++i) {
    const auto lines = tested.layers.layerIs(layer, {});
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(lines[0].isRefused);
  }
  tested.database->settingCheckIs([](const auto&...) { return Vela::Outcome(); });
  tested.layers.layerIs(layer, {});
  EXPECT_EQ(tested.port->cookie(), 0);
}

}  // namespace
}  // namespace Orrery
