// Settings made by requests, and found by the next start.
#include "platform/orrery/KeptSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <system_error>

#include "platform/orrery/Requests.h"
#include "tests/platform/orrery/Support.h"
#include "tests/support/TempDir.h"

namespace Orrery {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// One run of a process.
struct Start : DatabaseFixture {
  explicit Start(const std::string& file)
      : kept(*database, file, {"config/port/alias", "config/x"}) {
    port = portIs("config/port");
    status = portIs("status/port");
    for (const char* directory : {"config/ports", "config/x"}) {
      database->entityIs(directory, Vela::make<Ports>(directory));
    }
    portIs("config/ports/p0");
  }
  void request(const Vela::Json& one) {
    answerRequest(*database, *one);
    kept.note(*one);
  }

  const Vela::ActivityLock lock;
  KeptSettings kept;
  Vela::Ptr<Port> port, status;
};

TEST(KeptSettings, HoldAtTheNextStart) {
  const TestSupport::TempDir directory;
  const std::string file = directory.file("settings");
  {
    Start first(file);
    EXPECT_THAT(first.kept.load(), IsEmpty());
    first.request(setRequest("config/port", "mtuBytes", "9000"));
    first.request(setRequest("config/port", "2", "18446744073709551615"));
    first.request(setRequest("config/port", "alias", "is not kept"));
    first.request(setRequest("status/port", "mtuBytes", "9001"));
    first.request(setRequest("config/ports/p1", "loss", "0.5"));
    first.request(createRequest("config/ports/p2", {{"enabled", "true"}, {"alias", "two"}}));
    first.request(createRequest("config/ports/p3", {}));
    first.request(createRequest("config/x/p4", {}));
    first.request(deleteRequest("config/ports/p3"));
    first.request(deleteRequest("config/ports/p0"));
    first.request(getRequest("config/port"));
  }
  for (int i = 0; i < 2; ++i) {
    Start next(file);
    EXPECT_THAT(next.kept.load(), IsEmpty());
    EXPECT_EQ(next.port->mtuBytes(), 9000);
    EXPECT_EQ(next.port->cookie(), UINT64_MAX);
    EXPECT_EQ(next.port->alias(), "");
    EXPECT_EQ(next.status->mtuBytes(), 1500);
    EXPECT_THAT(next.database->children("config/ports"), ElementsAre("p1", "p2"));
    const auto second = next.database->entity("config/ports/p2");
    EXPECT_EQ(second->attribute("enabled")->text() + second->attribute("alias")->text(), "truetwo");
    EXPECT_THAT(next.database->children("config/x"), IsEmpty());
    next.request(setRequest("config/port", "enabled", "true"));  // beside the former ones
  }
}

TEST(KeptSettings, SurviveBadOnes) {
  const TestSupport::TempDir directory;
  const std::string file = directory.file("settings");
  std::ofstream(file) << R"({"config/gone": {"a": 1}, "config/port": {"mtuBytes": 9000}})";
  Start next(file);
  EXPECT_THAT(next.kept.load(), ElementsAre(HasSubstr("\"config/gone\" is no path")));
  EXPECT_EQ(next.port->mtuBytes(), 9000);
  std::ofstream(file) << "cut o";
  EXPECT_THAT(Start(file).kept.load(), IsEmpty());
  Start nowhere(directory.file("none/settings"));
  EXPECT_THROW(nowhere.request(setRequest("config/port", "mtuBytes", "9000")), std::system_error);
}

}  // namespace
}  // namespace Orrery
