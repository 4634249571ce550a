// Requests in the CLI directory: executed once, answered under their id, and not left behind.
#include "P4Runtime/agent/CliSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

using testing::HasSubstr;
using Seconds = std::chrono::seconds;

class CliSmTest : public testing::Test {
 protected:
  CliSmTest() {
    commands["echo"] = {"echo WORD", 1, 1, [this](const std::vector<std::string>& arguments) {
                          ++executions;
                          return arguments[0];
                        }};
    commands["fail"] = {"fail", 0, 0, [](const auto&) -> std::string {
                          throw std::runtime_error("it cannot be done; do another thing");
                        }};
    commands["forget"] = {"forget", 0, 0, [this](const auto&) -> std::string {
                            requests->entityDel("forgetful");
                            return "done";
                          }};
  }
  ~CliSmTest() override {
    const Vela::ActivityLock lock;
    sm = nullptr;
  }

  void start() {
    const Vela::ActivityLock lock;
    sm = Vela::make<CliSm>(loop, requests, answers, commands, [this] { return now; });
  }
  void turn() {
    loop.post([this] { loop.stop(); });
    loop.run();
  }
  void place(const std::string& id, const std::string& command, const std::string& arguments) {
    const Vela::ActivityLock lock;
    const auto entity = requests->makeEntity(id);
    dynamic_cast<CliRequest&>(*entity).commandIs(command);
    dynamic_cast<CliRequest&>(*entity).argumentsIs(arguments);
    requests->entityIs(id, entity);
  }
  void take(const std::string& id) {
    const Vela::ActivityLock lock;
    requests->entityDel(id);
  }
  // "" without an answer; else "+" or "-" for ok, and its text.
  std::string answer(const std::string& id) {
    const Vela::ActivityLock lock;
    const auto entity = answers->entity(id);
    if (!entity) return "";
    const auto& found = dynamic_cast<CliAnswer&>(*entity);
    return (found.ok() ? "+" : "-") + found.text();
  }

  Vela::ReactorLoop loop;
  std::chrono::steady_clock::time_point now{};
  Vela::Ptr<CliConfigDir> requests = Vela::make<CliConfigDir>("requests");
  Vela::Ptr<CliStatusDir> answers = Vela::make<CliStatusDir>("answers");
  CliCommands commands;
  Vela::Ptr<CliSm> sm;
  int executions = 0;
};

TEST_F(CliSmTest, AnswersWhateverIsAsked) {
  place("early", "echo", R"(["before the start"])");
  start();
  const struct {
    const char* id;
    const char* command;
    const char* arguments;
    const char* answer;
  } cases[] = {
      {"good", "echo", R"(["hello"])", "+hello"},
      {"failing", "fail", "[]", "-it cannot be done; do another thing"},
      {"bare", "fail", "", "-it cannot be done"},
      {"unknown", "fly", "[]", "-there is no command 'fly'; there are: echo, fail, forget"},
      {"nameless", "", "[]", "-there is no command ''"},
      {"few", "echo", "[]", "-0 arguments are not what it takes: echo WORD"},
      {"many", "echo", R"(["a", "b"])", "-2 arguments are not what it takes"},
      {"nojson", "echo", "hello", "-the request's arguments are no JSON array"},
      {"object", "echo", "{}", "-the request's arguments are no JSON array"},
      {"numbers", "echo", "[1]", "-the request's arguments are not all strings"},
      {"forgetful", "forget", "[]", ""},
  };
  for (const auto& c : cases) place(c.id, c.command, c.arguments);
  turn();
  EXPECT_EQ(answer("early"), "+before the start");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id);
    EXPECT_THAT(answer(c.id), HasSubstr(c.answer));
    EXPECT_EQ(answer(c.id).empty(), std::string(c.answer).empty());
  }
  EXPECT_EQ(executions, 2);
  take("good");
  EXPECT_EQ(answer("good"), "");
  for (const char* id : {"a/b", "a b", "\n"}) {
    EXPECT_THROW(requests->makeEntity(id), Vela::BadValue) << id;
  }
}

TEST_F(CliSmTest, AnswersThatNobodyTakesGo) {
  start();
  place("old", "echo", R"(["old"])");
  turn();
  now += Seconds(299);
  place("new", "echo", R"(["new"])");
  turn();
  const auto removeOld = [this] {
    const Vela::ActivityLock lock;
    sm->doRemoveOldAnswers();
  };
  removeOld();
  EXPECT_EQ(answer("old"), "+old");
  now += Seconds(1);
  removeOld();
  EXPECT_EQ(answer("old"), "");
  EXPECT_FALSE(requests->entityHas("old"));
  EXPECT_EQ(answer("new"), "+new");
  for (size_t i = 0; i < CliSm::mostAnswers; ++i) {
    now += Seconds(1);
    place("r" + std::to_string(i), "echo", R"(["x"])");
    turn();
  }
  EXPECT_EQ(answer("new"), "");
  EXPECT_EQ(answer("r0"), "+x");
  EXPECT_EQ(answers->entityNames().size(), CliSm::mostAnswers);
}

TEST_F(CliSmTest, TheEndWaitsForAnswersOnTheirWay) {
  start();
  int ends = 0;
  const auto end = [&] {
    const Vela::ActivityLock lock;
    sm->whenAnswersAreTaken([&] {
      ++ends;
      loop.stop();
    });
  };
  end();
  EXPECT_EQ(ends, 1) << "nobody waits for an answer";
  loop.run();
  place("last", "echo", R"(["bye"])");
  turn();
  end();
  EXPECT_EQ(ends, 1);
  take("last");
  loop.run();
  EXPECT_EQ(ends, 2);
  place("dead", "echo", R"(["bye"])");
  turn();
  end();  // and no requester ever takes it: a timer ends the waiting
  loop.run();
  EXPECT_EQ(ends, 3);
}

}  // namespace
}  // namespace P4Runtime
