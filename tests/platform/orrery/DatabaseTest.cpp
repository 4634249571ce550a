// The tree: paths, directories, and notices on the reactor.
#include "platform/orrery/Database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/orrery/Support.h"

namespace Orrery {
namespace {

using ::testing::ElementsAre;

class DatabaseTest : public testing::Test, public DatabaseFixture {
  const Vela::ActivityLock lock_;
};

TEST_F(DatabaseTest, EntitiesStandUnderPathsWithDirectoriesAbove) {
  const auto port = portIs("p4runtime/status/port");
  EXPECT_EQ(database->entity("p4runtime/status/port").get(), port.get());
  EXPECT_STREQ(database->entity("p4runtime/status")->typeName(), "Orrery::Directory");
  EXPECT_EQ(database->entity("p4runtime/none"), nullptr);
  EXPECT_EQ(database->entity("p4runtime/status/port/below"), nullptr);
  EXPECT_EQ(database->entity(std::string(100000, '/')), nullptr);
  portIs("p4runtime/status/a");
  EXPECT_THAT(database->children("p4runtime/status"), ElementsAre("a", "port"));
  EXPECT_THAT(database->children(""), ElementsAre("p4runtime"));
  EXPECT_THAT(database->children("p4runtime/status/port"), ElementsAre());
  EXPECT_EQ(database->entityDel("p4runtime/status/port").get(), port.get());
  EXPECT_EQ(database->entityDel("p4runtime/status/port"), nullptr);
  EXPECT_EQ(database->entityDel(""), nullptr);
  EXPECT_THAT(database->children("p4runtime/status"), ElementsAre("a"));
}

TEST_F(DatabaseTest, PathsGoOnBelowDirectoriesWhoseNamesHaveSlashes) {
  const auto directory = Vela::make<Directory>("queries");
  database->entityIs("config/queries", directory);
  const auto port = Vela::make<Port>("a/b/c");
  directory->entityIs("a/b/c", port);
  directory->entityIs("a", Vela::make<Port>("a"));  // no directory: the longer name is meant
  EXPECT_EQ(database->entity("config/queries/a/b/c").get(), port.get());
  EXPECT_EQ(database->entityDel("config/queries/a/b/c").get(), port.get());
  EXPECT_EQ(database->entity("config/queries/a/b/c"), nullptr);
}

TEST_F(DatabaseTest, RefusesPathsThatCannotBe) {
  portIs("a/port");
  for (const std::string& path :
       {std::string(), std::string("/a"), std::string("a/"), std::string("a//b"),
        std::string(2000, 'x'), std::string("a/port/below"), std::string("a/port/b/c")}) {
    SCOPED_TRACE(path);
    EXPECT_THROW(database->entityIs(path, Vela::make<Port>("x")), PathError);
  }
}

TEST_F(DatabaseTest, CreationAndDeletionAreToldOnALaterTurn) {
  std::vector<std::string> told;
  auto watch = database->observe([&](const std::string& path) {
    EXPECT_TRUE(loop.onThread());
    told.push_back(path + (database->entity(path) ? "+" : "-"));
  });
  portIs("a/one");
  portIs("a/two");
  database->entityDel("a/two");
  EXPECT_THAT(told, ElementsAre());
  turn();
  EXPECT_THAT(told, ElementsAre("a/one+", "a/two-", "a/two-"));
  database->entityDel("a/one");
  watch.end();
  turn();
  EXPECT_EQ(told.size(), 3u);
}

}  // namespace
}  // namespace Orrery
