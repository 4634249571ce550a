// The table of settings beside the entities that have them.
#include "P4Runtime/companion/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "P4Runtime/agent/Agent.h"
#include "platform/orrery/Directory.h"
#include "platform/orrery/EntityTypes.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

using Names = std::vector<std::string>;

Names settableAttributes(const Vela::Entity& entity) {
  Names names;
  for (const auto* attribute : entity.attributes()) {
    if (attribute->access() == Vela::AttributeBase::Access::readWrite) {
      names.emplace_back(attribute->name());
    }
  }
  return names;
}

Names attributesOf(const Orrery::SettingGroup& group) {
  Names names;
  for (const Orrery::Setting& setting : group.settings) names.emplace_back(setting.attribute);
  return names;
}

// Of the agent and of the interfaces, whatever their paths.
std::vector<Vela::Ptr<Vela::Entity>> configurable() {
  std::vector<Vela::Ptr<Vela::Entity>> all;
  for (const std::string& type : Orrery::TheEntityTypes().names()) {
    const auto entity = Orrery::TheEntityTypes().make(type, "one");
    all.push_back(entity);
    // Commands are no settings.
    const auto* directory = dynamic_cast<const Orrery::Directory*>(entity.get());
    if (!directory || type == "P4Runtime::CliConfigDir") continue;
    if (const auto made = directory->makeEntity("1")) all.push_back(made);
  }
  std::erase_if(all, [](const auto& entity) { return settableAttributes(*entity).empty(); });
  return all;
}

TEST(AgentSettings, EachSettableAttributeHasItsLine) {
  const Vela::ActivityLock lock;
  korvelAgentRegisterTypes();
  std::vector<Names> described;
  for (const auto& group : agentSettings()) described.push_back(attributesOf(group));
  std::vector<Names> known;
  for (const auto& entity : configurable()) known.push_back(settableAttributes(*entity));
  EXPECT_THAT(described, testing::UnorderedElementsAreArray(known))
      << "add the attribute to P4Runtime/companion/Settings.cpp, in the order of its entity";
}

TEST(AgentSettings, EachLineIsWhole) {
  for (const auto& group : agentSettings()) {
    SCOPED_TRACE(group.path);
    EXPECT_THAT(group.meaning, testing::EndsWith("."));
    for (const Orrery::Setting& setting : group.settings) {
      SCOPED_TRACE(setting.attribute);
      EXPECT_THAT(setting.meaning, testing::EndsWith("."));
      EXPECT_THAT(setting.meaning, testing::Not(testing::HasSubstr("|"))) << "it stands in a table";
      EXPECT_STRNE(setting.example, "");
      EXPECT_LE(setting.least, setting.most);
    }
  }
}

}  // namespace
}  // namespace P4Runtime
