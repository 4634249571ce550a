// Enabling and disabling: the requests to each part, their order, and a change of mind.
#include <functional>

#include "P4Runtime/agent/P4RtSystemConfigSm.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class SystemConfigTest : public AgentTest {
 protected:
  SystemConfigTest() { make(); }

  void make() {
    const Vela::ActivityLock lock;
    agentConfig_ = Vela::make<AgentConfig>("agent");
    all_ = Vela::make<AllPluginConfig>("all");
    statuses_ = Vela::make<Orrery::Directory>("status");
    sm_ = p4RtSystemConfigSmFactory(agentConfig_, agent().config, agent().status, all_,
                                    Vela::make<PluginConfigDir>("config"), statuses_,
                                    agent().tableInfo, agent().tableImpl);
  }
  void restart() {  // on the same state
    sm_ = nullptr;
    start();
    make();
  }
  void enabledIs(bool enabled) {
    const Vela::ActivityLock lock;
    agent().config->enabledIs(enabled);
  }
  void pluginIs(const std::string& name) {
    statuses_->entityIs(name, Vela::make<PluginStatus>(name));
  }
  PluginStatus& plugin(const std::string& name) {
    return dynamic_cast<PluginStatus&>(*statuses_->entity(name));
  }
  void answer(const std::string& name) {
    plugin(name).cleanupRequestIdIs(all_->cleanupRequestId());
    plugin(name).disableRequestIdIs(all_->disableRequestId());
  }
  std::string picture() const {  // enabled, exit, and the requests to each
    return std::string(parts().status->enabled() ? "enabled" : "disabled") +
           (agentConfig_->exitRequested() ? " exit" : "") + " cleanup " +
           std::to_string(all_->cleanupRequestId()) + " disable " +
           std::to_string(all_->disableRequestId());
  }
  bool ready() const {
    return parts().tableInfo->tableInfoState() == P4TableInfoState::tableInfoReady;
  }
  AgentParts& parts() const { return const_cast<SystemConfigTest*>(this)->agent(); }

  Vela::Ptr<AgentConfig> agentConfig_;
  Vela::Ptr<AllPluginConfig> all_;
  Vela::Ptr<Orrery::Directory> statuses_;
  Vela::Ptr<P4RtSystemConfigSm> sm_;
};

TEST_F(SystemConfigTest, EveryOrderOfEventsEndsAsTheLastWordSays) {
  const std::function<void()> steps[] = {
      [this] { enabledIs(true); }, [this] { enabledIs(false); },          [this] { answer("a"); },
      [this] { answer("b"); },     [this] { statuses_->entityDel("a"); },
  };
  // + enable, - disable, a and b answer, x: plugin a goes away.
  const struct {
    const char* what;
    const char* events;
    const char* end;
    const char* waitsFor;
  } cases[] = {
      {"nothing", "", "enabled cleanup 0 disable 0", ""},
      {"disable", "-", "enabled cleanup 0 disable 1", "disable: plugins a, b, to stop"},
      {"one answers", "-b", "enabled cleanup 0 disable 1", "disable: plugin a, to stop"},
      {"both answer", "-ba", "disabled exit cleanup 0 disable 1", ""},
      {"the last one goes away", "-bx", "disabled exit cleanup 0 disable 1", ""},
      {"enabled again", "-a+", "enabled cleanup 0 disable 1", ""},
      {"answers come too late", "-+ab", "enabled cleanup 0 disable 1", ""},
      {"disabled once more", "-+ab-", "enabled cleanup 0 disable 2",
       "disable: plugins a, b, to stop"},
      {"and answered", "-+ab-ab", "disabled exit cleanup 0 disable 2", ""},
      {"answers to the former request", "-a+-b", "enabled cleanup 0 disable 2",
       "disable: plugin a, to stop"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    restart();
    pluginIs("a");
    pluginIs("b");
    for (const char event : std::string(c.events)) steps[std::string("+-abx").find(event)]();
    EXPECT_EQ(picture(), c.end);
    EXPECT_EQ(agent().status->waitsFor(), c.waitsFor);
    agent().settle();
    EXPECT_EQ(ready(), agent().config->enabled());
  }
}

TEST_F(SystemConfigTest, WithoutPluginsADisableIsCompleteAtOnce) {
  const uint64_t handle = agent().program(exactEntry(1));
  enabledIs(false);
  EXPECT_EQ(picture(), "disabled exit cleanup 0 disable 1");
  EXPECT_FALSE(ready());
  EXPECT_EQ(agent().tableImpl->tableCache(), nullptr);
  restart();
  agent().tableImpl->restoreCachedEntries();
  EXPECT_EQ(agent().handleOf(exactEntry(1)), handle);
}

TEST_F(SystemConfigTest, NothingIsDisabledThatWasNotEnabled) {
  sm_ = nullptr;
  start();
  enabledIs(false);
  make();
  EXPECT_EQ(picture(), "disabled cleanup 0 disable 0");
  enabledIs(true);
  agent().settle();
  EXPECT_EQ(picture(), "enabled cleanup 0 disable 0");
  EXPECT_TRUE(ready());
  EXPECT_NE(agent().program(exactEntry(1)), 0u);
}

// Its responses, and the undoing of its failures, come before anything is let go.
TEST_F(SystemConfigTest, WriteInProgressIsSettledFirst) {
  agent().program(exactEntry(1, 5));
  const std::string former = *agent().row("exact");
  for (const bool enabledAgain : {true, false}) {
    SCOPED_TRACE(enabledAgain);
    agent().begin();
    agent().add(0, exactEntry(1, 6));
    agent().end();
    enabledIs(false);
    EXPECT_EQ(all_->disableRequestId(), 0u);
    EXPECT_EQ(agent().status->waitsFor(),
              "disable: the Write in progress, before the tables are let go");
    if (enabledAgain) enabledIs(true);
    forwarder().failNext(ErrorCode::hardwareError, "no");
    EXPECT_EQ(agent().outcome().size(), 1u);
    forwarder().programAll();  // the entries put back
    agent().settle();
    if (!enabledAgain) break;
    EXPECT_EQ(picture(), "enabled cleanup 1 disable 0");
    EXPECT_TRUE(ready());
    EXPECT_EQ(*agent().row("exact"), former);
  }
  EXPECT_EQ(picture(), "disabled exit cleanup 1 disable 1");
  EXPECT_NE(agent().begin(), PI_STATUS_SUCCESS);
  EXPECT_EQ(TheWriteGate()->closedFor(), "the agent is disabled");
}

TEST_F(SystemConfigTest, CachesAreLetGoOnlyWhenTheBatchHasItsOutcome) {
  const uint64_t handle = agent().program(exactEntry(1, 5));
  agent().begin();
  agent().add(0, exactEntry(1, 6));
  agent().end();
  {
    const Vela::ActivityLock lock;
    agent().tableImpl->cleanupCache();
  }
  ASSERT_NE(agent().tableImpl->tableCache(), nullptr);
  forwarder().failNext(ErrorCode::hardwareError, "no");
  EXPECT_EQ(agent().outcome().size(), 1u);
  EXPECT_EQ(agent().record(exactTable, handle)->entryState, EntryState::stable);
  agent().settle();
  EXPECT_EQ(agent().tableImpl->tableCache(), nullptr);
  EXPECT_NE(agent().begin(), PI_STATUS_SUCCESS);
}

TEST_F(SystemConfigTest, StatusOfAnotherTypeBreaksAnAssertion) {
  statuses_->entityIs("odd", Vela::make<AllPluginConfig>("odd"));
  EXPECT_DEATH(enabledIs(false), "pluginStatus");
}

}  // namespace
}  // namespace P4Runtime
