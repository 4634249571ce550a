// Mounts: their order, modes and failures.
#include "platform/orrery/MountGroup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/orrery/EntityTypes.h"
#include "tests/platform/orrery/Support.h"

namespace Orrery {
namespace {

using ::testing::HasSubstr;

class MountGroupTest : public testing::Test, public DatabaseFixture {
 protected:
  MountGroupTest() { TheEntityTypes().typeIs<Port>("Test::Port"); }

  // The reason of the failure, or "mounted".
  std::string outcome(const std::string& path, const std::string& type, const std::string& mode) {
    MountGroup group(*database, loop);
    group.mountIs(path, type, mode);
    std::string result = "never completed";
    group.completeIs([&](const Vela::Outcome& outcome, const Vela::Ptr<EntityManager>& manager) {
      result = outcome.ok() ? "mounted" : outcome.reason();
      entities = manager;
    });
    EXPECT_EQ(result, "never completed");
    turn();
    return result;
  }

  Vela::Ptr<EntityManager> entities;
  const Vela::ActivityLock lock_;
};

TEST_F(MountGroupTest, ModesDecideWhatIsMounted) {
  portIs("there/port");
  const struct {
    const char *path, *type, *mode, *outcome;
  } cases[] = {
      {"there/port", "Test::Port", "r", "mounted"},
      {"there/port", "Test::Port", "w", "mounted"},
      {"there/port", "Test::Port", "wci", "mounted"},
      {"there/port", "Test::Port", "i", "mode 'i' is not made of"},
      {"there/port", "Test::Port", "rx", "mode 'rx' is not made of"},
      {"there/port", "Test::Lamp", "r", "it is a Test::Port, not a Test::Lamp"},
      {"there/port", "Orrery::Directory", "r", "it is a Test::Port, not a Orrery::Directory"},
      {"there", "Orrery::Directory", "ri", "mounted"},
      {"absent/port", "Test::Port", "w", "cannot mount absent/port: there is no such path"},
      {"absent/port", "Test::Lamp", "wc", "type Test::Lamp is not known"},
      {"there/port/below", "Test::Port", "wc", "not a directory"},
      {"bad//path", "Test::Port", "wc", "no path"},
      {"absent/port", "Test::Port", "wc", "mounted"},
      {"absent/port", "Test::Port", "r", "mounted"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + c.type + " " + c.mode);
    EXPECT_THAT(outcome(c.path, c.type, c.mode), HasSubstr(c.outcome));
  }
}

TEST_F(MountGroupTest, AMountWithoutWriteModeCannotBeWrittenThrough) {
  const auto port = portIs("port");
  ASSERT_EQ(outcome("port", "Test::Port", "r"), "mounted");
  EXPECT_EQ(entities->entity<const Port>("port").get(), port.get());
  EXPECT_THROW(entities->entity<Port>("port"), MountError);
  EXPECT_THROW(entities->entity<const Directory>("port"), MountError);
  EXPECT_THROW(entities->entity<const Port>("other"), MountError);
  ASSERT_EQ(outcome("port", "Test::Port", "w"), "mounted");
  EXPECT_EQ(entities->entity<Port>("port").get(), port.get());
}

TEST_F(MountGroupTest, FirstFailureStopsAndADeadGroupStaysSilent) {
  MountGroup group(*database, loop);
  group.mountIs("one", "Test::Port", "wc");
  group.mountIs("two", "Test::Port", "w");
  group.mountIs("three", "Test::Port", "wc");
  std::string reason;
  group.completeIs([&](const Vela::Outcome& outcome, const auto&) { reason = outcome.reason(); });
  std::optional<MountGroup> dead(std::in_place, *database, loop);
  dead->completeIs([](const Vela::Outcome&, const auto&) { FAIL(); });
  dead.reset();
  turn();
  EXPECT_THAT(reason, HasSubstr("two"));
  EXPECT_NE(database->entity("one"), nullptr);
  EXPECT_EQ(database->entity("three"), nullptr);
}

}  // namespace
}  // namespace Orrery
