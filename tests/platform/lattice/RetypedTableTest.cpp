// A table gets another type that takes its rows as they stand, before the eyes of forwarding agents
// that learn of it, and of others that do not.
#include <gmock/gmock.h>

#include "platform/lattice/TableWatch.h"
#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "tests/platform/lattice/AgentFixture.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Vela::ActivityLock;

constexpr const char* extendedType = R"(
  key vrf_id : U16;
  key dst : U32;
  action { set_nexthop 7 { nexthop_id : U32; } drop 8 { none : Void; } copy 9 { to : U8; } }
)";
// Of an action.
constexpr const char* renamedType = R"(
  key vrf_id : U16;
  key dst : U32;
  action { forward 7 { nexthop_id : U32; } drop 8 { none : Void; } copy 9 { to : U8; } }
)";
constexpr const char* otherType = "key vrf_id : U16; key dst : U32; nexthop : U64;";

struct RetypedTableTest : FollowedAgentTest {
  RetypedTableTest() { follower->subscriber->learnsTypesIs(true); }

  void retype(const char* definition) { routes = &agent->table("routes", definition); }
  void restart(const char* definition) {
    agent.reset();
    agent = std::make_unique<Agent>(directory.path());
    retype(definition);
  }
  void write(uint32_t from, uint32_t to, uint32_t nexthop = 1) {
    const ActivityLock lock;
    for (uint32_t i = from; i < to; ++i) routes->rowIs(route(i, nexthop), 100 + i, "record");
  }
  void writeCopy(uint32_t dst) {
    const ActivityLock lock;
    routes->rowIs({route(dst, 1).key, std::string("\x09\0\0\0\x05", 5)}, 100 + dst, "record");
  }
  size_t rowCount() {
    const ActivityLock lock;
    return routes->rowCount();
  }
  size_t keptCount() {
    const ActivityLock lock;
    return agent->database->kept("routes").size();
  }
  bool inStepAll(std::initializer_list<Follower*> all) {
    std::vector<Subscriber*> subscribers;
    for (Follower* one : all) subscribers.push_back(one->subscriber.get());
    return Agent::followUntil(subscribers, [&] {
      return std::ranges::all_of(subscribers, [&](const Subscriber* one) {
        return one->attached() && one->sequence() == agent->database->lastSequence();
      });
    });
  }
  // The agent notes something then that rings for nobody.
  void attach(Follower& other) {
    ASSERT_TRUE(Agent::followUntil({follower->subscriber.get(), other.subscriber.get()},
                                   [&] { return agent->database->subscribers().size() == 2; }));
  }
  bool followed() { return inStepAll({follower.get()}); }
};

TEST_F(RetypedTableTest, RowsStayAndTheirFollowerLearnsTheType) {
  write(0, 50);
  ASSERT_TRUE(followed());
  const size_t changes = follower->changes;
  retype(extendedType);
  EXPECT_EQ(rowCount(), 50u);
  writeCopy(50);
  ASSERT_TRUE(followed());
  EXPECT_EQ(follower->changes, changes + 1);
  EXPECT_THAT(follower->retyped, ElementsAre(extendedType));
  EXPECT_EQ(follower->removed, 0u);
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_THAT(follower->rows["routes"], SizeIs(51));
  EXPECT_EQ(keptCount(), 0u);

  // Another process of the agent's has the type already, or is the first that has it.
  restart(extendedType);
  ASSERT_TRUE(followed());
  EXPECT_THAT(follower->retyped, SizeIs(1));
  restart(renamedType);
  ASSERT_TRUE(followed());
  EXPECT_THAT(follower->retyped, SizeIs(2));
  EXPECT_EQ(follower->changes, changes + 1);
  EXPECT_THAT(follower->rows["routes"], SizeIs(51));
}

TEST_F(RetypedTableTest, WhoComesLaterKnowsTheTypeFromTheBegin) {
  write(0, 50);
  retype(extendedType);
  writeCopy(50);
  ASSERT_TRUE(followed());
  EXPECT_THAT(follower->retyped, IsEmpty());
  EXPECT_THAT(follower->rows["routes"], SizeIs(51));
}

TEST_F(RetypedTableTest, OneThatWasAwayLearnsItWhenItGoesOn) {
  write(0, 50);
  ASSERT_TRUE(followed());
  agent.reset();  // it follows nobody meanwhile
  agent = std::make_unique<Agent>(directory.path());
  retype(extendedType);
  writeCopy(7);
  ASSERT_TRUE(followed());
  EXPECT_THAT(follower->retyped, ElementsAre(extendedType));
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_EQ(follower->removed, 0u);
}

// The first commit fails.
struct FailingObserver final : CommitObserver {
  bool isFirst = true;
  void onBeforeCommit() override {
    if (std::exchange(isFirst, false)) throw std::runtime_error("no room");
  }
  void onCommitted() override {}
  void onDiscarded() override {}
  void onBatchEnded() override {}
  void onWatchedTableGone(const std::string&) override {}
};

TEST_F(RetypedTableTest, ACommitThatFailsCostsNeitherTypeNorRows) {
  auto& other = agent->table("other");
  write(0, 50);
  ASSERT_TRUE(followed());
  const size_t changes = follower->changes;
  FailingObserver failing;
  {
    const ActivityLock lock;
    const auto watch = agent->database->watch("other");
    agent->database->commitObserverIs(&failing);
    retype(extendedType);
    other.rowIs(route(1, 1), 9);
    EXPECT_FALSE(agent->database->commit().ok());
    agent->database->commitObserverIs(nullptr);
    EXPECT_TRUE(agent->database->commit().ok());
  }
  EXPECT_EQ(rowCount(), 50u);
  writeCopy(50);
  ASSERT_TRUE(followed());
  EXPECT_THAT(follower->retyped, ElementsAre(extendedType));
  EXPECT_EQ(follower->changes, changes + 1);
}

TEST_F(RetypedTableTest, OtherTypesBeginAnEmptyTable) {
  write(0, 50);
  ASSERT_TRUE(followed());
  for (const char* definition : {otherType, routeType}) {
    retype(definition);
    EXPECT_EQ(rowCount(), 0u);
    ASSERT_TRUE(followed());
  }
  EXPECT_EQ(follower->removed, 2u);
  EXPECT_EQ(keptCount(), 50u);
  retype(extendedType);
  write(0, 50);
  ASSERT_TRUE(followed());
  retype(routeType);
  EXPECT_EQ(rowCount(), 0u) << "some rows might have the action that goes";
}

// A table keeps its type with its number for those who learn the types of numbers once.
TEST_F(RetypedTableTest, OneWhoDoesNotLearnSeesANewTable) {
  Follower plain(directory.path(), "plain");
  attach(plain);
  write(0, 50);
  ASSERT_TRUE(inStepAll({follower.get(), &plain}));
  retype(extendedType);
  EXPECT_EQ(rowCount(), 0u);
  EXPECT_EQ(keptCount(), 50u);
  write(0, 50);
  writeCopy(50);
  ASSERT_TRUE(inStepAll({follower.get(), &plain}));
  EXPECT_EQ(plain.removed, 1u);
  EXPECT_EQ(follower->removed, 1u);
  EXPECT_THAT(follower->retyped, IsEmpty());
  EXPECT_THAT(plain.rows["routes"], SizeIs(51));
}

// Such a forwarding agent may be away when the type changes, and go on afterwards.
TEST_F(RetypedTableTest, ThoseWhoDoNotLearnAreRemembered) {
  Follower plain(directory.path(), "plain");
  attach(plain);
  write(0, 50);
  ASSERT_TRUE(inStepAll({follower.get(), &plain}));
  restart(routeType);
  restart(extendedType);
  EXPECT_EQ(rowCount(), 0u);
  write(0, 51);
  ASSERT_TRUE(inStepAll({follower.get(), &plain}));
  EXPECT_THAT(plain.rows["routes"], SizeIs(51));

  // The next one of that name learns.
  plain.subscriber = Subscriber::create(directory.path(), "plain", plain);
  plain.subscriber->learnsTypesIs(true);
  ASSERT_TRUE(followUntil([&] { return agent->database->subscribers().size() == 1; }));
  attach(plain);
  const size_t changes = follower->changes;
  retype(renamedType);
  EXPECT_EQ(rowCount(), 51u);
  ASSERT_TRUE(inStepAll({follower.get(), &plain}));
  EXPECT_EQ(follower->changes, changes);
  EXPECT_THAT(plain.retyped, SizeIs(1));
}

// One that nobody remembers, say of an agent before this one, would take rows for those of the
// former type.
TEST_F(RetypedTableTest, OneThatMissedATypeIsRefused) {
  write(0, 1);
  ASSERT_TRUE(followed());
  const uint64_t before = follower->subscriber->sequence();
  StoreIdentity identity{};
  {
    const ActivityLock lock;
    agent->store->identity().copy(identity.data(), identity.size());
  }
  retype(extendedType);
  ASSERT_TRUE(followed());
  const auto answerTo = [&](const AttachMessage& attach) {
    int error = 0;
    const Socket socket = connectedTo(directory.file("doorbell.sock"), &error);
    socket.send(attach.encode());
    std::string buffer(maxMessageBytes, '\0');
    std::string_view answer;
    EXPECT_TRUE(
        followUntil([&] { return socket.receive(buffer, &answer) == Socket::Received::message; }));
    return messageKind(answer);
  };
  EXPECT_EQ(answerTo({before, identity, "old"}), MessageKind::refused);
  EXPECT_EQ(answerTo({before, identity, "old", AttachMessage::learnsTypes}), MessageKind::attached);
  EXPECT_EQ(answerTo({0, {}, "old"}), MessageKind::attached) << "it knows nothing";
  EXPECT_EQ(answerTo({agent->database->lastSequence(), identity, "old"}), MessageKind::attached);
}

}  // namespace
}  // namespace Lattice
