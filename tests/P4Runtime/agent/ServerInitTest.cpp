// When the server may serve, with restored and constant entries.
#include <sys/eventfd.h>
#include <unistd.h>

#include "P4Runtime/agent/KorvelPiServer.h"
#include "P4Runtime/agent/KorvelPiServerInitSm.h"
#include "P4Runtime/agent/ServerLimits.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/int/pi_int.h"
#include "PI/target/pi_act_prof_imp.h"
#include "platform/vela/Exception.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using pi::fe::proto::DeviceMgr;

// Runs only when a test says so: signals stay to be counted.
Vela::ReactorLoop& serverLoop() {
  static auto* loop = new Vela::ReactorLoop;
  return *loop;
}

// Servers without a thread. They are never let go: the destructor would start one.
std::vector<Vela::Ptr<KorvelPiServer>>& servers() {
  static auto* all = new std::vector<Vela::Ptr<KorvelPiServer>>;
  return *all;
}

Vela::Ptr<KorvelPiServer> serverOf(AgentParts& agent) {
  const Vela::ActivityLock lock;
  servers().push_back(korvelPiServerFactory(serverLoop(), agent.config));
  return servers().back();
}

uint64_t takeSignals(const KorvelPiServer& server) {
  uint64_t count = 0;
  return read(server.signalFd(), &count, sizeof count) == sizeof count ? count : 0;
}

class ServerInitTest : public AgentTest {
 protected:
  ServerInitTest() { make(); }

  void make() {
    server_ = serverOf(agent());
    const Vela::ActivityLock lock;
    initSm_ = Vela::make<KorvelPiServerInitSm>(agent().tableInfo, agent().config, agent().status,
                                               server_, agent().tableImpl);
  }
  void restart() {
    initSm_ = nullptr;
    start();
    make();
  }
  void serverReady() {
    const Vela::ActivityLock lock;
    server_->serverReadyIs(true);
  }
  void stateIs(P4TableInfoState state) {
    const Vela::ActivityLock lock;
    agent().tableInfo->tableInfoStateIs(state);
  }
  // The server has the pipeline once more.
  void pushAgain() {
    {
      const Vela::ActivityLock lock;
      server_->serverReadyIs(false);
    }
    serverReady();
  }
  // Of the reactor, for all but signals, which would push.
  static void turn() {
    for (const auto& server : servers()) takeSignals(*server);
    serverLoop().post([] { serverLoop().stop(); });
    serverLoop().run();
  }
  uint64_t signals() { return takeSignals(*server_); }
  static uint32_t level() { return DeviceMgr::get_operation_permission_level(); }

  Vela::Ptr<KorvelPiServer> server_;
  Vela::Ptr<KorvelPiServerInitSm> initSm_;
};

TEST_F(ServerInitTest, AddressIsThatOfTheConfiguration) {
  const struct {
    const char* address;
    uint16_t port;
    const char* text;
  } cases[] = {{"10.1.2.3", 700, "10.1.2.3:700"}, {"::1", 9559, "[::1]:9559"}};
  for (const auto& c : cases) {
    const Vela::ActivityLock lock;
    const auto config = Vela::make<P4RuntimeConfig::P4RtSystemConfig>("system");
    config->grpcServerAddressIs(*IpAddress::fromText(c.address));
    config->grpcServerPortIs(c.port);
    server_->p4RtSystemConfigIs(config);
    EXPECT_EQ(server_->serverAddressPortStr(), c.text);
  }
  const Vela::ActivityLock lock;
  server_->p4RtSystemConfigIs(Vela::make<P4RuntimeConfig::P4RtSystemConfig>("system"));
  EXPECT_EQ(server_->serverAddressPortStr(), "127.0.0.1:9559");
  server_->p4RtSystemConfigIs(nullptr);
  EXPECT_EQ(server_->serverAddressPortStr(), "0.0.0.0:0");
  EXPECT_EQ(server_->deviceId(), 0u);
}

// The order is the one by which attributes are called by number.
TEST_F(ServerInitTest, TheServerShowsItselfAndRefusesWhatWouldTakeItDown) {
  const Vela::ActivityLock lock;
  std::vector<std::string> names;
  for (const auto* attribute : server_->attributes()) names.push_back(attribute->name());
  EXPECT_THAT(names, testing::ElementsAre("p4RtSystemConfig", "maxDevices", "signalFd", "fileDesc",
                                          "serverReadySm", "serverReady", "initialized",
                                          "piServerAddr", "piServerPort", "deviceId"));
  EXPECT_EQ(server_->attribute("piServerPort")->text(),
            std::to_string(agent().config->grpcServerPort()));
  EXPECT_EQ(server_->operation("serverAddressPortStr")->run({}), server_->serverAddressPortStr());
  server_->operation("setOperationPermissionLevel")->run({"1"});
  EXPECT_EQ(level(), 1u);
  for (const char* name :
       {"handleInitialized", "startProcessing", "signal", "sendPipelineConfigMsg", "doCleanup"}) {
    SCOPED_TRACE(name);
    ASSERT_NE(server_->operation(name), nullptr);
    EXPECT_THROW(server_->operation(name)->run({}), Vela::BadValue);
  }
  EXPECT_EQ(signals(), 0u);
  WriteGate::Closer change("a new pipeline");
  change.close();
  EXPECT_THROW(server_->operation("setOperationPermissionLevel")->run({"2"}), Vela::BadValue);
  EXPECT_EQ(level(), 0u) << "no operator opens a closed gate";
}

// A configuration file may hold values that `korvel set` refuses.
TEST_F(ServerInitTest, LimitsThatShutEverybodyOutEndTheStart) {
  const Vela::ActivityLock lock;
  const auto config = Vela::make<P4RuntimeConfig::P4RtSystemConfig>("system");
  EXPECT_NO_THROW(followServerLimits(*config));
  const struct {
    const char* attribute;
    const char* value;
  } cases[] = {{"maxConnections", "0"},
               {"maxStreams", "4294967295"},
               {"arbitrationTimeout", "-1"},
               {"arbitrationTimeout", "1e300"},
               {"maxServerMemory", "1"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attribute);
    Vela::AttributeBase* attribute = config->attribute(c.attribute);
    const std::string former = attribute->text();
    attribute->textIs(c.value);
    try {
      followServerLimits(*config);
      ADD_FAILURE() << c.value;
    } catch (const Vela::Exception& e) {
      EXPECT_THAT(e.what(), testing::HasSubstr(std::string(c.attribute) + " "));
      EXPECT_THAT(e.what(), testing::HasSubstr("out of range; choose "));
    }
    attribute->textIs(former);
  }
}

TEST_F(ServerInitTest, PermissionFollowsThePipelineAndTheCriticalState) {
  const struct {
    const char* what;
    P4TableInfoState state;
    bool broken;
    bool critical;
    uint32_t level;
    uint64_t signals;
  } cases[] = {
      {"no pipeline", P4TableInfoState::tableInfoNotReady, false, false, 0, 0},
      {"ready", P4TableInfoState::tableInfoReady, false, false, 2, 1},
      {"failed", P4TableInfoState::tableInfoError, false, false, 0, 0},
      {"ready with a broken invariant", P4TableInfoState::tableInfoReady, true, false, 1, 1},
      {"no pipeline again", P4TableInfoState::tableInfoNotReady, true, false, 0, 0},
      {"ready in critical state", P4TableInfoState::tableInfoReady, false, true, 1, 1},
      {"unknown", static_cast<P4TableInfoState>(7), false, false, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    agent().status->criticalCleared();
    agent().status->brokenInvariantIs(c.broken);
    if (c.critical) agent().status->criticalIs("why", "since");
    stateIs(c.state);
    EXPECT_EQ(level(), c.level);
    EXPECT_EQ(signals(), c.signals);
  }
  EXPECT_EQ(agent().status->criticalReason(), "Unrecognized tableInfoState 7");
  initSm_->tableInfoIs(nullptr);  // observed no more
  stateIs(P4TableInfoState::tableInfoReady);
  EXPECT_EQ(signals(), 0u);
}

// The push keeps the reactor, which the Write needs to hear of the forwarding plane.
TEST_F(ServerInitTest, PipelineThatReplacesAnotherWaitsForTheWriteInProgress) {
  serverReady();
  agent().begin();
  agent().add(0, exactEntry(1));
  stateIs(P4TableInfoState::tableInfoNotReady);
  stateIs(P4TableInfoState::tableInfoReady);
  EXPECT_EQ(signals(), 0u);
  agent().end();
  forwarder().programAll();
  EXPECT_TRUE(agent().outcome().empty());
  agent().settle();
  EXPECT_EQ(signals(), 1u);
  EXPECT_EQ(level(), 0u) << "no Write begins under the former pipeline";
  EXPECT_NE(agent().begin(), PI_STATUS_SUCCESS) << "nor one that was let in just before";
  server_->setOperationPermissionLevel(2);
  EXPECT_NE(agent().begin(), PI_STATUS_SUCCESS) << "nor at an operator's word";
  {
    const Vela::ActivityLock lock;
    server_->serverReadyIs(false);
  }
  serverReady();
  EXPECT_EQ(level(), 2u);
}

// A million entries take more than a second.
TEST_F(ServerInitTest, ARestoreLetsOthersHaveTheirTurnsAndControllersWait) {
  constexpr size_t entries = 5;  // two of them constant
  serverReady();
  for (uint8_t id = 0; id < 3; ++id) agent().program(exactEntry(id));
  restart();
  const uint64_t before = agent().lastSequence();
  initSm_->restoreSliceIs(RestoreSlice::ofObjects(1));
  serverReady();
  size_t turns = 0;
  for (; agent().tableImpl->restoring(); ++turns) {
    EXPECT_EQ(agent().frontEnd.restored.size(), std::min(turns + 1, entries));
    EXPECT_FALSE(agent().frontEnd.restoreDone);
    agent().begin();
    EXPECT_NE(agent().add(0, exactEntry(9)), PI_STATUS_SUCCESS);
    agent().end();
    agent().outcome();
    agent().tableImpl->revertCriticalState();
    EXPECT_EQ(signals(), 0u) << "the restore is under way already";
    ASSERT_LT(turns, 100u);
    turn();
  }
  EXPECT_GE(turns, entries);
  EXPECT_TRUE(agent().frontEnd.restoreDone);
  EXPECT_EQ(agent().lastSequence(), before) << "forwarding agents hear of no change";
  EXPECT_NE(agent().program(exactEntry(9)), 0u);
  turn();
  EXPECT_EQ(agent().frontEnd.restored.size(), entries);
}

// By SIGKILL, or by another pipeline, at any object. Each pipeline has another type of the table
// than the one before, so that rows are made of records that are kept beside.
TEST_F(ServerInitTest, ARestoreThatIsInterruptedCostsNothing) {
  const auto other = pipelineOf(
      smallP4Info(), replaced(smallDeviceConfig(), "key ether_type : U16", "key ether_type: U16"));
  serverReady();
  agent().begin();
  agent().updateIs(0, 7);
  const std::string port = bytes("0001");
  const pi_action_data_t action{nullptr, setPort, port.size(), const_cast<char*>(port.data())};
  uint64_t member = 0;
  ASSERT_EQ(_pi_act_prof_mbr_create(0, {1, 0xffff}, profile, &action, &member), PI_STATUS_SUCCESS);
  agent().add(1, {groupTable, bytes("00000003"), 0, "", 0, 0, "", member});
  for (uint8_t id = 0; id < 3; ++id) agent().add(2u + id, exactEntry(id));
  agent().end();
  forwarder().programAll();
  ASSERT_TRUE(agent().outcome().empty());
  const auto startWith = [&](const p4::v1::SetForwardingPipelineConfigRequest& pipeline) {
    {
      const Vela::ActivityLock lock;
      agent().tableImpl->abandonRestore();  // its turns end with the process
    }
    initSm_ = nullptr;
    start(pipeline);
    make();
  };
  bool isDone = false;
  for (size_t turns = 0; !isDone; ++turns) {
    for (const bool isKilled : {true, false}) {
      SCOPED_TRACE(testing::Message() << turns << " turns" << (isKilled ? ", then SIGKILL" : ""));
      startWith(isKilled ? other : smallPipeline());
      initSm_->restoreSliceIs(RestoreSlice::ofObjects(1));
      serverReady();
      for (size_t i = 0; i < turns; ++i) turn();
      isDone = !agent().tableImpl->restoring();
      if (isKilled) {
        startWith(other);
      } else {
        agent().pipelineIs(other, "other.pb.bin");
        EXPECT_FALSE(agent().tableImpl->restoring());
        EXPECT_EQ(signals(), 1u) << "the new one is pushed";
        turn();  // that the former restore had asked for
        EXPECT_EQ(agent().frontEnd.restoreDone, isDone);
      }
      agent().frontEnd.restored.clear();
      initSm_->restoreSliceIs(RestoreSlice::whole());
      pushAgain();
      EXPECT_EQ(agent().frontEnd.restored.size(), 6u) << "two of them constant";
      EXPECT_EQ(agent().rowCount(exactTable), 3u);
      EXPECT_EQ(agent().rowCount(groupTable), 1u);
      EXPECT_EQ(agent().recordCount(), 6u);
      EXPECT_EQ(agent().tableImpl->failures()->notRestored(), 0u);
      EXPECT_FALSE(agent().status->brokenInvariant());
    }
    ASSERT_LT(turns, 100u);
  }
}

// The front end deletes hidden members that no entry claims, when it is told that all is restored:
// here the entry that claims one was not taken back.
TEST_F(ServerInitTest, RestoreThatFailsCostsNothingAndIsDoneAgainOnRevert) {
  agent().begin();
  agent().updateIs(0);  // of a one-shot action set
  const std::string port = bytes("0001");
  const pi_action_data_t action{nullptr, setPort, port.size(), const_cast<char*>(port.data())};
  uint64_t member = 0;
  ASSERT_EQ(_pi_act_prof_mbr_create(0, {1, 0xffff}, profile, &action, &member), PI_STATUS_SUCCESS);
  const Entry entry{groupTable, bytes("00000003"), 0, "", 0, 0, "", member};
  agent().add(1, entry);
  agent().end();
  forwarder().programAll();
  ASSERT_TRUE(agent().outcome().empty());

  restart();
  agent().frontEnd.entryRefusal = PI_STATUS_INVALID_TABLE_OPERATION;
  serverReady();
  EXPECT_TRUE(agent().status->brokenInvariant());
  EXPECT_EQ(level(), 1u);
  EXPECT_EQ(agent().frontEnd.members.size(), 1u);
  EXPECT_NE(_pi_act_prof_mbr_delete(0, 1, profile, member), PI_STATUS_SUCCESS);
  EXPECT_EQ(signals(), 0u);

  agent().frontEnd.entryRefusal = PI_STATUS_SUCCESS;
  agent().tableImpl->revertCriticalState();
  EXPECT_EQ(signals(), 1u) << "the pipeline is pushed once more";
  EXPECT_EQ(level(), 0u) << "until the entries are back";
  agent().frontEnd.members.clear();
  pushAgain();
  EXPECT_EQ(level(), 2u);
  EXPECT_EQ(agent().frontEnd.members.size(), 1u);
  EXPECT_EQ(agent().frontEnd.restored.front().indirectHandle, member);
  EXPECT_EQ(agent().rowCount(groupTable), 1u);
  EXPECT_NE(agent().program(exactEntry(1)), 0u);
}

TEST_F(ServerInitTest, ConstantEntriesAreProgrammedOnceInTheLifeOfTheirRows) {
  serverReady();
  EXPECT_TRUE(agent().frontEnd.restoreDone);
  EXPECT_TRUE(agent().tableImpl->constTablesProgrammed());
  EXPECT_EQ(agent().rowCount(constantTable), 2u);
  EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
  const Entry first{constantTable, bytes("0a"), setPort, bytes("00ff")};
  const uint64_t handle = agent().handleOf(first);
  EXPECT_EQ(agent().record(constantTable, handle)->entryState, EntryState::stable);
  const uint64_t before = agent().lastSequence();

  restart();
  serverReady();
  EXPECT_EQ(agent().lastSequence(), before);
  EXPECT_EQ(agent().handleOf(first), handle);
  EXPECT_EQ(agent().frontEnd.restored.size(), 2u);
}

// A controller can neither delete nor change constant entries of the former pipeline.
TEST_F(ServerInitTest, ConstantEntriesFollowThePipeline) {
  serverReady();
  const Entry first{constantTable, bytes("0a"), setPort, bytes("00ff")};
  const Entry second{constantTable, bytes("0b"), setPort, bytes("0001")};
  const uint64_t stays = agent().handleOf(first);
  const uint64_t changes = agent().handleOf(second);
  const std::string one = R"({"key": "0b", "action_id": 16777217, "action_params": "0001"})";
  const struct {
    const char* what;
    std::string config;
    size_t rows;
    size_t changes;    // that forwarding agents hear of
    std::string port;  // of the second; "": it is gone
  } cases[] = {
      {"as before", smallDeviceConfig(), 2, 0, bytes("0001")},
      {"another action", replaced(smallDeviceConfig(), "\"0001\"", "\"0003\""), 2, 1,
       bytes("0003")},
      {"gone", replaced(smallDeviceConfig(), one, one.substr(0, 9) + "0c" + one.substr(11)), 2, 2,
       ""},
  };
  for (const bool inOneProcess : {false, true}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.what) + (inOneProcess ? " in the running agent" : " at a start"));
      initSm_ = nullptr;
      if (!inOneProcess) start();
      const size_t before = forwarder().heard();
      agent().pipelineIs(pipelineOf(smallP4Info(), c.config), c.what);
      make();
      agent().frontEnd.restored.clear();
      serverReady();
      EXPECT_EQ(agent().rowCount(constantTable), c.rows);
      EXPECT_EQ(forwarder().heard() - before, c.changes);
      EXPECT_EQ(agent().handleOf(first), stays);
      EXPECT_EQ(agent().handleOf(second) != 0, !c.port.empty());
      for (const auto& back : agent().frontEnd.restored) {
        if (back.key == second.key) {
          EXPECT_EQ(back.data, c.port);
        }
      }
    }
    // As at first, and unlike it in the handle.
    initSm_ = nullptr;
    agent().pipelineIs(smallPipeline(), "first again");
    make();
    serverReady();
    EXPECT_GT(agent().handleOf(second), changes);
  }
}

// Nobody waits for a constant entry; its failure must be told all the same.
TEST_F(ServerInitTest, FailedConstantEntryIsKeptForOperators) {
  serverReady();
  forwarder().failNext(ErrorCode::tableFull, "no room");
  forwarder().programNext();
  EXPECT_EQ(agent().tableImpl->failures()->failedEntries(), 1u);
  EXPECT_THAT(agent().tableImpl->failures()->list(), testing::HasSubstr("table constant, type="));
  EXPECT_NE(agent().program(exactEntry(1)), 0u) << "and no write is taken for it";
}

TEST_F(ServerInitTest, ConstantEntryThatCannotBeAddedKeepsNoOtherFromIt) {
  initSm_ = nullptr;
  agent().pipelineIs(pipelineOf(smallP4Info(), replaced(smallDeviceConfig(), "\"0a\"", "\"0a0b\"")),
                     "other.pb.bin");
  make();
  serverReady();
  EXPECT_EQ(agent().rowCount(constantTable), 1u);
  EXPECT_TRUE(agent().tableImpl->constTablesProgrammed());
  EXPECT_FALSE(agent().status->critical());
}

// Disabled while its pipeline was pushed: without tables, every record would look unusable.
TEST_F(ServerInitTest, WithoutItsTablesNothingIsRestoredAndNothingRemoved) {
  const uint64_t handle = agent().program(exactEntry(1));
  restart();
  agent().tableInfo->cleanupRequestIdInc(1);
  serverReady();
  EXPECT_FALSE(agent().frontEnd.restoreDone);
  restart();
  serverReady();
  EXPECT_EQ(agent().handleOf(exactEntry(1)), handle);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
}

TEST(BytesFromHexadecimal, TakesTwoCharactersAByte) {
  EXPECT_EQ(bytesFromHexadecimal("0a0B"), "\x0a\x0b");
  EXPECT_EQ(bytesFromHexadecimal("0a0Bf"), "\x0a\x0b\x0f");
  EXPECT_EQ(bytesFromHexadecimal(""), "");
}

}  // namespace
}  // namespace P4Runtime
