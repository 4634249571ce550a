#include "P4Runtime/table/TableImpl.h"

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_counter.h"
#include "PI/pi_meter.h"
#include "PI/target/pi_tables_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class TableImplTest : public AgentTest {};

TEST_F(TableImplTest, RowsHoldWhatPiBytesSay) {
  const struct {
    const char* what;
    const char* table;
    Entry entry;
    std::string rowKey;
    std::string value;
  } cases[] = {
      {"16-bit fields go to host order, 9-bit ones too",
       "exact",
       {exactTable, bytes("0800 01ff"), setPort, bytes("0102")},
       bytes("0800 01ff"),
       bytes("01000001 0201")},
      {"an action without parameters is its id",
       "exact",
       {exactTable, bytes("86dd 0001"), drop, ""},
       bytes("86dd 0001"),
       bytes("03000001")},
      {"an IPv4 prefix",
       "route4",
       {route4Table, bytes("0005") + prefix("0a010000", 16), setNexthop,
        bytes("00000007 001122334455 0a000001")},
       bytes("0005 01 10 000000000000 0a010000 00000000 00000000 00000000"),
       bytes("02000001 07000000 001122334455 0a000001")},
      {"an IPv6 prefix",
       "route6",
       {route6Table, prefix("20010db8 00000000 00000000 00000001", 128), drop, ""},
       bytes("02 80 000000000000 20010db8 00000000 00000000 00000001"),
       bytes("03000001")},
      {"value, mask and priority",
       "acl",
       {aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 258},
       bytes("0a000000 ff000000 0050 ffff 06 00000102"),
       bytes("03000001")},
      {"a meter and a counter that were not given",
       "metered",
       {meteredTable, bytes("00000009"), setDmac, bytes("665544332211")},
       bytes("00000009"),
       bytes("04000001 665544332211") + std::string(33 + 17, '\0')},
      {"a group's lower half",
       "group",
       {.table = groupTable, .key = bytes("00000003"), .indirectHandle = 0x100000005},
       bytes("00000003"),
       bytes("05000000 01")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(codeOfAdd(c.entry), OK) << message();
    const auto programmed = forwarder().rows().find({c.table, c.rowKey});
    ASSERT_NE(programmed, forwarder().rows().end());
    EXPECT_EQ(programmed->second, c.value);
    EXPECT_EQ(agent().record(c.entry.table, agent().handleOf(c.entry))->entryState,
              EntryState::stable);
    EXPECT_EQ(codeOfDelete(c.entry), OK) << message();
    expectEmpty(c.entry.table);
    EXPECT_TRUE(forwarder().rows().empty());
  }
}

TEST_F(TableImplTest, DirectMeterAndCounterStandInTheRow) {
  pi_meter_spec_t meter{1, 2, 3, 4, PI_METER_UNIT_BYTES, PI_METER_TYPE_COLOR_AWARE};
  pi_counter_data_t counter{};
  counter.bytes = 5;
  counter.packets = 6;
  pi_direct_res_config_one_t configs[] = {{directMeter, &meter}, {directCounter, &counter}};
  const pi_direct_res_config_t direct{2, configs};
  Entry entry{meteredTable, bytes("00000009"), setDmac, bytes("665544332211")};
  entry.direct = &direct;
  ASSERT_NE(agent().program(entry), 0u);
  EXPECT_EQ(*agent().row("metered"),
            bytes("04000001 665544332211"
                  "01 0100000000000000 0200000000000000 0300000000000000 0400000000000000"
                  "01 0500000000000000 0600000000000000"));
  configs[1].res_id = profile;
  EXPECT_EQ(codeOfAdd(entry), INVALID_ARGUMENT);
  EXPECT_EQ(message(), "Invalid resource type: 17 res_id: 285212673");
}

TEST_F(TableImplTest, RefusalLeavesNothingBehind) {
  const std::string long1023(1023, 'x');
  const std::string long1024(1024, 'x');
  const struct {
    const char* what;
    Entry entry;
    int code;
    const char* message;  // or its beginning
  } cases[] = {
      {"key of 1023 bytes",
       {exactTable, long1023, setPort, bytes("0001")},
       INVALID_ARGUMENT,
       "table exact: the match key has 1023 bytes instead of 4"},
      {"key of 1024 bytes",
       {exactTable, long1024, setPort, bytes("0001")},
       UNIMPLEMENTED,
       "Key size larger than 2014 not supported"},
      {"action of 1023 bytes",
       {exactTable, bytes("0800 0001"), setPort, long1023},
       INVALID_ARGUMENT,
       "action set_port: its data has 1023 bytes instead of 2"},
      {"action of 1024 bytes",
       {exactTable, bytes("0800 0001"), setPort, long1024},
       UNIMPLEMENTED,
       "Action size larger than 1024 not supported"},
      {"both: the key is looked at first",
       {exactTable, long1024, setPort, long1024},
       UNIMPLEMENTED,
       "Key size"},
      {"an action of another table",
       {exactTable, bytes("0800 0001"), setDmac, bytes("000000000001")},
       INVALID_ARGUMENT,
       "no known action id found"},
      {"a field of 3 bytes",
       {labelTable, bytes("000001"), drop, ""},
       UNIMPLEMENTED,
       "table label cannot be programmed: match field \"label\": it is 24 bits wide"},
      {"a parameter of 3 bytes",
       {meteredTable, bytes("00000001"), setLabel, bytes("000001")},
       UNIMPLEMENTED,
       "action set_label of table metered cannot be programmed: parameter \"label\": it is 20 bits "
       "wide"},
      {"a table that is not there",
       {0x020000ff, "", drop, ""},
       UNIMPLEMENTED,
       "table 33554687 is not part of the pipeline's device configuration"},
      {"a member for a table of actions",
       {.table = exactTable, .key = bytes("0800 0001"), .indirectHandle = 5},
       INTERNAL,
       "table exact: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    agent().begin();
    EXPECT_EQ(agent().add(0, c.entry), updateFailedStatus);
    agent().end();
    EXPECT_EQ(forwarder().pending(), 0u);
    const auto left = agent().outcome();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].second.canonical_code(), c.code);
    EXPECT_THAT(left[0].second.message(), testing::StartsWith(c.message));
    EXPECT_EQ(agent().recordCount(), 0u);
    EXPECT_EQ(agent().handleOf(c.entry), 0u);
  }
  EXPECT_FALSE(agent().status->critical());
}

TEST_F(TableImplTest, DeleteOfWhatIsNotThereIsRefused) {
  EXPECT_EQ(codeOfDelete(exactEntry(1)), INVALID_ARGUMENT);
  EXPECT_EQ(message(), "table exact has no entry with this match key");
  EXPECT_EQ(codeOfDelete({exactTable, std::string(1024, 'x')}), UNIMPLEMENTED);
  expectEmpty(exactTable);
}

TEST_F(TableImplTest, FullTableRefusesNewEntriesOnly) {
  for (uint8_t id = 0; id < 4; ++id) ASSERT_NE(agent().program(exactEntry(id)), 0u);
  EXPECT_EQ(codeOfAdd(exactEntry(9)), RESOURCE_EXHAUSTED);
  EXPECT_EQ(message(), "table id 33554433 size limit reached");
  EXPECT_EQ(agent().handleOf(exactEntry(9)), 0u);
  EXPECT_EQ(codeOfAdd(exactEntry(1, 77)), OK) << "a change of an entry always fits";

  agent().begin();  // room that the same batch makes
  agent().del(0, exactEntry(0));
  EXPECT_EQ(agent().add(1, exactEntry(9)), PI_STATUS_SUCCESS);
  agent().end();
  forwarder().programAll();
  EXPECT_TRUE(agent().outcome().empty());

  agent().tableImpl->tableSizeCheckEnabledIs(false);
  EXPECT_EQ(codeOfAdd(exactEntry(10)), OK);
  agent().tableImpl->tableSizeCheckEnabledIs(true);
  EXPECT_EQ(codeOfAdd(exactEntry(11)), OK) << "above the limit it passes";
}

TEST_F(TableImplTest, PrioritiesAreTakenAsTheyCome) {
  const Entry acl{aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 0};
  EXPECT_EQ(codeOfAdd(acl), OK);
  Entry other = acl;
  other.priority = 9;
  EXPECT_EQ(codeOfAdd(other), OK);
  EXPECT_EQ(agent().rowCount(aclTable), 2u);
  Entry exact = exactEntry(1);
  exact.priority = 3;  // the table needs none
  EXPECT_EQ(codeOfAdd(exact), OK);
  const std::string row = *agent().row("exact");
  exact.priority = 4;
  exact.data = bytes("0009");
  EXPECT_EQ(codeOfAdd(exact), ALREADY_EXISTS)
      << "both would stand in one row, and the first be lost";
  EXPECT_EQ(*agent().row("exact"), row);
  EXPECT_EQ(agent().handleOf(exact), 0u);
  exact.priority = 3;
  EXPECT_EQ(codeOfDelete(exact), OK);
}

TEST_F(TableImplTest, DefaultActionsAreAcknowledgedOnly) {
  pi_table_entry_t entry{};
  EXPECT_EQ(_pi_table_default_action_set(0, {1, 0}, exactTable, &entry), PI_STATUS_SUCCESS);
  EXPECT_EQ(_pi_table_default_action_reset(0, {1, 0}, exactTable), PI_STATUS_SUCCESS);
  EXPECT_EQ(_pi_table_default_action_get(0, 1, exactTable, &entry), PI_STATUS_SUCCESS);
  EXPECT_EQ(_pi_table_default_action_done(0, &entry), PI_STATUS_SUCCESS);
  EXPECT_EQ(entry.entry_type, PI_ACTION_ENTRY_TYPE_NONE);
  expectEmpty(exactTable);
}

TEST_F(TableImplTest, ControllerMetadataIsKeptWithTheEntry) {
  Entry entry = exactEntry(1);
  entry.controllerMetadata = 0x1122334455667788;
  entry.metadata = "who asked for it";
  const uint64_t handle = agent().program(entry);
  const CacheKey key{{tableResource, exactTable}, handle};
  EXPECT_EQ(agent().record(exactTable, handle)->controllerMetadata, entry.controllerMetadata);
  EXPECT_EQ(agent().tableImpl->cachedMetadata(key), entry.metadata);
  entry.metadata = "";
  EXPECT_EQ(codeOfAdd(entry), OK);
  EXPECT_EQ(agent().tableImpl->cachedMetadata(key), "");
}

}  // namespace
}  // namespace P4Runtime
