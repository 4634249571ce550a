// Types compile on later turns, and their status says how it went.
#include "platform/pollen/TypeService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/lattice/types/TableType.h"
#include "platform/vela/ActivityLock.h"

namespace Pollen {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class TypeServiceTest : public testing::Test {
 protected:
  ~TypeServiceTest() override { configs->typeConfigDelAll(); }

  void turn() {
    loop.post([this] { loop.stop(); });
    loop.run();
  }
  std::string status(const std::string& name) {
    const auto found = statuses->typeStatus(name);
    return found ? found->compilationStatusAttribute().text() : "none";
  }
  bool registered(const char* name) { return Lattice::TheTypeRegistry().type(name) != nullptr; }

  const Vela::ActivityLock lock;
  Vela::ReactorLoop loop;
  Vela::Ptr<TypeConfigDir> configs = Vela::make<TypeConfigDir>("config");
  Vela::Ptr<TypeStatusDir> statuses = Vela::make<TypeStatusDir>("status");
  Vela::Ptr<TypeService> service = Vela::make<TypeService>(loop, configs, statuses);
};

TEST_F(TypeServiceTest, CompilesOnALaterTurnAndRegistersBeforeItTells) {
  std::vector<std::string> told;
  Vela::Observation change;
  auto watch = statuses->entityCollection().observeKeys([&](const std::string& name) {
    if (!statuses->typeStatus(name)) return;
    change = statuses->typeStatus(name)->compilationStatusAttribute().observe([&, name] {
      told.push_back(status(name) + (registered(name.c_str()) ? " registered" : ""));
    });
  });
  configs->typeConfigIs("RouteType", "key vrf : U16; action { drop 7 { none : Void; } }");
  EXPECT_EQ(status("RouteType"), "inProgress");
  EXPECT_FALSE(registered("RouteType"));
  turn();
  EXPECT_EQ(status("RouteType"), "compiled");
  EXPECT_THAT(told, ElementsAre("compiled registered"));
  configs->typeConfigDel("RouteType");
  EXPECT_EQ(status("RouteType"), "none");
  EXPECT_FALSE(registered("RouteType"));
  turn();
  EXPECT_EQ(status("RouteType"), "none");
}

TEST_F(TypeServiceTest, FailureHasAReasonAndANewDefinitionANewChance) {
  configs->typeConfigIs("Bad", "key vrf : Nonsense;");
  configs->typeConfigIs("Good", "key vrf : U16;");
  turn();
  EXPECT_EQ(status("Bad"), "failed");
  EXPECT_THAT(statuses->typeStatus("Bad")->reason(), HasSubstr("Nonsense"));
  EXPECT_EQ(status("Good"), "compiled");
  configs->typeConfigIs("Bad", "key vrf : U32;");
  configs->typeConfigIs("Good", "key");
  EXPECT_EQ(status("Bad"), "inProgress");
  turn();
  EXPECT_EQ(status("Bad"), "compiled");
  EXPECT_EQ(statuses->typeStatus("Bad")->reason(), "");
  EXPECT_EQ(status("Good"), "failed");
  EXPECT_FALSE(registered("Good"));
}

TEST_F(TypeServiceTest, OnlyTheLastDefinitionOfATurnCounts) {
  configs->typeConfigIs("Changing", "key vrf : Nonsense;");
  configs->typeConfigIs("Changing", "key vrf : U16;");
  configs->typeConfigIs("Gone", "key vrf : U16;");
  configs->typeConfigDelAll();
  configs->typeConfigIs("Changing", "key vrf : U8;");
  turn();
  EXPECT_EQ(status("Gone"), "none");
  ASSERT_EQ(status("Changing"), "compiled");
  EXPECT_EQ(Lattice::TheTypeRegistry().type("Changing")->keySize(), 1u);
}

}  // namespace
}  // namespace Pollen
