// Attributes, collections, their observers, and access by name.
#include "platform/vela/Entity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace Vela {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

enum class Colour { red, green };
std::string enumToText(Colour colour) { return colour == Colour::red ? "red" : "green"; }
bool enumFromText(std::string_view text, Colour* colour) {
  *colour = text == "red" ? Colour::red : Colour::green;
  return text == "red" || text == "green";
}

class Lamp final : public Entity {
 public:
  explicit Lamp(std::string name) : Entity(std::move(name)) {
    operationIs({"dim", {"percent"}, [this](const std::vector<std::string>& arguments) {
                   brightnessAttribute().textIs(arguments[0]);
                   return "was dimmed";
                 }});
  }
  const char* typeName() const override { return "Lamp"; }

  VELA_ATTRIBUTE(bool, lit, false)
  VELA_ATTRIBUTE(uint16_t, brightness, 100)
  VELA_ATTRIBUTE(int64_t, offset)
  VELA_ATTRIBUTE(double, hours, 1.5)
  VELA_ATTRIBUTE(std::string, room)
  VELA_ATTRIBUTE(Colour, colour, Colour::red)
  VELA_READONLY_ATTRIBUTE(uint32_t, serial, 7)
  VELA_ATTRIBUTE(Ptr<Lamp>, twin)
  VELA_COLLECTION(uint32_t, std::string, owner)
};

TEST(Attribute, TellsAfterStoringAndOnlyOfAChange) {
  const auto lamp = make<Lamp>("lamp");
  std::vector<std::string> told;
  const Ptr<const Lamp> reader(lamp);  // a reader may observe
  auto one = reader->brightnessAttribute().observe(
      [&] { told.push_back(std::to_string(reader->brightness())); });
  auto all = reader->observeAll([&](const std::string& name) { told.push_back(name); });
  lamp->brightnessIs(100);
  EXPECT_THAT(told, ElementsAre());
  lamp->brightnessIs(50);
  EXPECT_THAT(told, ElementsAre("50", "brightness"));
  one.end();
  lamp->litIs(true);
  EXPECT_THAT(told, ElementsAre("50", "brightness", "lit"));
}

TEST(Attribute, ANoticeMayAddAndRemoveObservers) {
  const auto lamp = make<Lamp>("lamp");
  std::vector<std::string> told;
  Observation self, later, added;
  self = lamp->litAttribute().observe([&, kept = std::string(50, 'k')] {
    self.end();
    later.end();
    added = lamp->litAttribute().observe([&] { told.push_back("added"); });
    told.push_back("self" + std::to_string(kept.size()));
  });
  later = lamp->litAttribute().observe([&] { told.push_back("later"); });
  lamp->litIs(true);
  EXPECT_THAT(told, ElementsAre("self50"));
  lamp->litIs(false);
  EXPECT_THAT(told, ElementsAre("self50", "added"));
}

TEST(Attribute, ANoticeMayDropTheLastReference) {
  auto lamp = make<Lamp>("lamp");
  Lamp* bare = lamp.get();
  int told = 0;
  auto drop = lamp->litAttribute().observe([&] { lamp = nullptr; });
  auto after = lamp->litAttribute().observe([&] { ++told; });
  auto all = lamp->observeAll([&](const std::string&) { ++told; });
  bare->litIs(true);
  EXPECT_EQ(told, 2);
  drop.end();  // observations may outlive the observed object
}

TEST(Attribute, NestedChangesLeaveEachObserverWithTheNewestValue) {
  const auto lamp = make<Lamp>("lamp");
  uint16_t seen = 0;
  auto limiter = lamp->brightnessAttribute().observe([&] {
    if (lamp->brightness() > 100) lamp->brightnessIs(100);
  });
  lamp->brightnessIs(1);
  auto watcher = lamp->brightnessAttribute().observe([&] { seen = lamp->brightness(); });
  lamp->brightnessIs(200);
  EXPECT_EQ(seen, 100);
}

TEST(Collection, TellsKeysAndSurvivesKeysFromWithin) {
  const auto lamp = make<Lamp>("lamp");
  std::vector<std::string> told;
  auto watch = lamp->ownerCollection().observeKeys([&](const std::string& key) {
    told.push_back(key + (lamp->ownerHas(std::stoul(key)) ? "+" : "-"));
  });
  lamp->ownerIs(3, "ann");
  lamp->ownerIs(3, "ann");
  lamp->ownerIs(3, "bob");
  lamp->ownerIs(4, "");
  EXPECT_THAT(told, ElementsAre("3+", "3+", "4+"));
  EXPECT_EQ(lamp->owner(3), "bob");
  EXPECT_EQ(lamp->owner(99), "");
  EXPECT_THAT(lamp->ownerCollection().entryTexts(10), ElementsAre(Pair("3", "bob"), Pair("4", "")));
  lamp->ownerDel(lamp->ownerCollection().values().begin()->first);
  told.clear();
  lamp->ownerIs(5, "x");
  lamp->ownerDelAll();
  EXPECT_EQ(told.size(), 3u);
  EXPECT_EQ(lamp->ownerDel(5), "");
}

TEST(Collection, DelAllEndsThoughAnObserverPutsOneBack) {
  const auto lamp = make<Lamp>("lamp");
  auto stubborn = lamp->ownerCollection().observe([&] { lamp->ownerIs(1, "back"); });
  lamp->ownerIs(1, "a");
  lamp->ownerDelAll();
  EXPECT_EQ(lamp->owner(1), "back");
}

TEST(Entity, IsReachedByNameAndNumber) {
  const auto lamp = make<Lamp>("lamp");
  const struct {
    size_t number;
    const char* name;
    const char* type;
    const char* initial;
    const char* good;  // null: cannot be written
    const char* bad;
  } cases[] = {
      {0, "lit", "bool", "false", "true", "yes"},
      {1, "brightness", "uint16", "100", "65535", "65536"},
      {2, "offset", "int64", "0", "-9223372036854775808", "1.5"},
      {3, "hours", "number", "1.5", "-0.25", "inf"},
      {4, "room", "string", "", "kitchen 2", nullptr},
      {5, "colour", "enumerator", "red", "green", "blue"},
      {6, "serial", "uint32", "7", nullptr, "8"},
      {7, "twin", "reference", "none", nullptr, "lamp"},
      {8, "owner", "collection", "0 entries", nullptr, "x"},
  };
  ASSERT_EQ(lamp->attributes().size(), std::size(cases));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AttributeBase* attribute = lamp->attribute(c.name);
    ASSERT_NE(attribute, nullptr);
    EXPECT_EQ(lamp->attribute(c.number), attribute);
    EXPECT_STREQ(attribute->typeName(), c.type);
    EXPECT_EQ(attribute->text(), c.initial);
    if (c.good) {
      attribute->textIs(c.good);
      EXPECT_EQ(attribute->text(), c.good);
    }
    if (c.bad) {
      const std::string before = attribute->text();
      EXPECT_THROW(attribute->textIs(c.bad), BadValue);
      EXPECT_EQ(attribute->text(), before);
    }
  }
  EXPECT_EQ(lamp->attribute("none"), nullptr);
  EXPECT_EQ(lamp->attribute(99), nullptr);
  ASSERT_NE(lamp->operation("dim"), nullptr);
  EXPECT_EQ(lamp->operation("dim")->run({"20"}), "was dimmed");
  EXPECT_EQ(lamp->brightness(), 20);
  EXPECT_EQ(lamp->operation("explode"), nullptr);
  try {
    lamp->attribute("brightness")->textIs("-1");
    FAIL();
  } catch (const BadValue& e) {
    EXPECT_THAT(e.what(), HasSubstr("brightness of lamp takes a uint16, not '-1'"));
  }
}

}  // namespace
}  // namespace Vela
