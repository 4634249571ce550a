// A pipeline that fails after it was put in force: the former one finds its entries again.
#include "PI/int/pi_int.h"
#include "PI/target/pi_act_prof_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::HasSubstr;
using testing::SizeIs;

struct Outcome : AwaitedChange {
  std::string text = "nothing";
  bool takeEffect(NextPipeline&) override { return true; }
  void succeed() override { text = "success"; }
  void fail(const std::string& why) override { text = why; }
};

class FailedPushTest : public AgentTest {
 protected:
  FailedPushTest() {
    entry_.metadata = "kept";
    pi_meter_spec_t meter{1, 2, 3, 4, PI_METER_UNIT_BYTES, PI_METER_TYPE_COLOR_AWARE};
    pi_direct_res_config_one_t config{directMeter, &meter};
    const pi_direct_res_config_t direct{1, &config};
    agent().program(entry_);
    agent().program({.table = meteredTable,
                     .key = bytes("00000009"),
                     .action = setDmac,
                     .data = bytes("665544332211"),
                     .direct = &direct});
    agent().begin();
    agent().updateIs(0, 7);
    uint64_t member = 0;
    pi_action_data_t action{nullptr, setPort, 2, const_cast<char*>("\0\5")};
    _pi_act_prof_mbr_create(0, target, profile, &action, &member);
    agent().updateIs(1, 8, "of the group");
    _pi_act_prof_grp_create(0, target, profile, 0, &group_);
    _pi_act_prof_grp_add_mbr(0, 1, profile, group_, member);
    agent().end();
    forwarder().programAll();
    agent().program({.table = groupTable, .key = bytes("00000003"), .indirectHandle = group_});
  }
  // A push of another number; returns what became of it.
  std::string pushed(const std::function<std::string(std::string)>& changed) {
    const auto outcome = std::make_shared<Outcome>();
    {
      const Vela::ActivityLock lock;
      NextPipeline next = P4TableInfoSm::checkedPipeline("pushed", smallPipeline());
      next.deviceJson = changed(next.deviceJson);
      next.entries = 1;
      next.awaited = outcome;
      agent().tableInfoSm->pipelineIs(std::move(next));
    }
    agent().settle();
    const Vela::ActivityLock lock;
    agent().tableInfoSm->handleServed();
    return outcome->text;
  }
  static std::string withoutTwoTables(const std::string& device) {
    const auto renamed = [](const std::string& text, const std::string& table) {
      return replaced(text, R"("table_name": ")" + table, R"("table_name": "once_)" + table);
    };
    return renamed(renamed(device, "metered"), "profile_group");
  }
  void restore() {
    const Vela::ActivityLock lock;
    agent().frontEnd = {};
    agent().tableImpl->restoreCachedEntries();
  }

  static constexpr pi_dev_tgt_t target{1, 0xffff};
  Entry entry_ = exactEntry(1, 5);
  pi_indirect_handle_t group_ = 0;
};

TEST_F(FailedPushTest, TheFormerPipelineHasItsEntries) {
  const uint64_t handle = agent().handleOf(entry_);
  const std::string metered = *agent().row("metered");
  const std::string group = *agent().row("profile_group");
  const auto faulty = [](const std::string& device) {
    return replaced(withoutTwoTables(device), "field_type", "field_kind");
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(pushed(faulty), HasSubstr("Cannot parse field_type to create rows"));
    ASSERT_EQ(agent().tableInfo->tableInfoState(), P4TableInfoState::tableInfoReady);
    EXPECT_EQ(agent().tableImpl->pushOfEntries(), 0u);
    restore();
    EXPECT_EQ(agent().handleOf(entry_), handle);
    ASSERT_THAT(agent().frontEnd.restored, SizeIs(3));
    for (const auto& back : agent().frontEnd.restored) {
      if (back.table == exactTable) {
        EXPECT_EQ(back.metadata, "kept");
      } else if (back.table == meteredTable) {
        ASSERT_TRUE(back.meter);
        EXPECT_EQ(back.meter->cburst, 2u);
      }
    }
    EXPECT_THAT(agent().frontEnd.members, SizeIs(1));
    ASSERT_THAT(agent().frontEnd.groups, SizeIs(1));
    EXPECT_THAT(agent().frontEnd.groups[0].data, testing::Not(testing::IsEmpty())) << "members";
    EXPECT_EQ(agent().frontEnd.groups[0].metadata, "of the group");
    EXPECT_EQ(*agent().row("metered"), metered);
    EXPECT_EQ(*agent().row("profile_group"), group);
  }
  EXPECT_EQ(codeOfDelete(entry_), OK);
}

TEST_F(FailedPushTest, OneThatComesUpHasNone) {
  EXPECT_EQ(pushed([](const std::string& device) { return device; }), "success");
  EXPECT_EQ(agent().tableImpl->pushOfEntries(), 1u);
  for (const uint32_t table : {exactTable, meteredTable, groupTable}) expectEmpty(table);
  restore();
  EXPECT_THAT(agent().frontEnd.restored, SizeIs(0));
  EXPECT_THAT(agent().frontEnd.groups, SizeIs(0));
  EXPECT_EQ(codeOfAdd(entry_), OK);
}

}  // namespace
}  // namespace P4Runtime
