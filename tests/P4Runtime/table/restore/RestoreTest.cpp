// Entries that survive a restart, and the end of those that no longer fit.
#include <algorithm>
#include <stdexcept>
#include <tuple>

#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/records/RowRecord.h"
#include "PI/pi_meter.h"
#include "tests/P4Runtime/support/AgentTest.h"
#include "tests/platform/brine/Flipping.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class RestoreTest : public AgentTest {
 protected:
  // A new process with this pipeline, after its restore.
  void restart(const p4::v1::SetForwardingPipelineConfigRequest& pipeline = smallPipeline()) {
    start(pipeline);
    restore();
  }
  void restore() {
    const Vela::ActivityLock lock;
    agent().tableImpl->restoreCachedEntries();
  }
  // Stands behind a row of its own.
  void recordIs(const TableCacheEntry& record) {
    const Vela::ActivityLock lock;
    std::string bytes;
    encodeRecord(record, bytes);
    agent()
        .tableInfo->latticeTableInterface(record.key.rid)
        ->rowIs({exactEntry(99).key, "value"}, record.key.entryHandle, bytes);
  }
  const FakeFrontEnd::Restored& restored(const Entry& entry) {
    const auto isIt = [&](const auto& one) {
      return one.table == entry.table && one.key == entry.key;
    };
    const auto found = std::ranges::find_if(agent().frontEnd.restored, isIt);
    if (found == agent().frontEnd.restored.end()) throw std::logic_error("it was not restored");
    return *found;
  }
};

TEST_F(RestoreTest, UnchangedEntriesComeBackWithoutATrace) {
  Entry first = exactEntry(1, 5);
  first.metadata = "kept";
  first.controllerMetadata = 42;
  const uint64_t handle = agent().program(first);
  const Entry acl{aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 258};
  const uint64_t aclHandle = agent().program(acl);
  const Entry indirect{
      .table = groupTable, .key = bytes("00000003"), .indirectHandle = 0x100000005};
  agent().program(indirect);
  const uint64_t before = agent().lastSequence();

  restart();
  EXPECT_EQ(agent().lastSequence(), before) << "forwarding agents hear of no change";
  ASSERT_EQ(agent().frontEnd.restored.size(), 3u);
  const auto& back = restored(first);
  EXPECT_EQ(back.action, first.action);
  EXPECT_EQ(back.data, first.data);
  EXPECT_EQ(back.handle, handle);
  EXPECT_EQ(back.metadata, "kept");
  EXPECT_EQ(back.controllerMetadata, 42u);
  EXPECT_EQ(restored(acl).priority, 258u);
  EXPECT_EQ(agent().handleOf(acl), aclHandle);
  EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
  EXPECT_GT(agent().program(exactEntry(2)), restored(indirect).handle);
  EXPECT_EQ(codeOfDelete(first), OK);
}

TEST_F(RestoreTest, DirectMeterSettingsStandAsTheyWere) {
  pi_meter_spec_t meter{1, 2, 3, 4, PI_METER_UNIT_BYTES, PI_METER_TYPE_COLOR_AWARE};
  pi_direct_res_config_one_t config{directMeter, &meter};
  const pi_direct_res_config_t direct{1, &config};
  Entry entry{meteredTable, bytes("00000008"), setDmac, bytes("665544332211")};
  agent().program(entry);
  entry.key = bytes("00000009");
  entry.direct = &direct;
  agent().program(entry);
  const std::string row = *agent().row("metered");
  const uint64_t before = agent().lastSequence();
  restart();
  EXPECT_EQ(*agent().row("metered"), row);
  EXPECT_EQ(agent().lastSequence(), before);
  ASSERT_EQ(agent().frontEnd.restored.size(), 2u);
  EXPECT_FALSE(agent().frontEnd.restored[0].meter) << "none was set";
  const auto back = agent().frontEnd.restored[1].meter;
  ASSERT_TRUE(back);
  EXPECT_EQ(std::tuple(back->cir, back->cburst, back->pir, back->pburst), std::tuple(1, 2, 3, 4));

  flipBehind(agent().directory + "/brine.store", "metered_type", 3);  // in the list of tables
  testing::internal::CaptureStderr();
  restart();
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("list of tables, table metered: its record in shared memory was"));
  EXPECT_EQ(*agent().row("metered"), row);
  ASSERT_EQ(agent().frontEnd.restored.size(), 2u);
  EXPECT_TRUE(agent().frontEnd.restored[1].meter);
}

TEST_F(RestoreTest, SizeLimitIsNotForRestoredEntries) {
  for (uint8_t id = 0; id < 4; ++id) agent().program(exactEntry(id));
  restart(pipelineOf(replaced(smallP4Info(), "size: 4", "size: 2"), smallDeviceConfig()));
  EXPECT_EQ(agent().frontEnd.restored.size(), 4u);
  EXPECT_EQ(agent().rowCount(exactTable), 4u);
}

TEST_F(RestoreTest, BatchInTheAirWhenTheAgentDiedIsDoneWholly) {
  Entry deleted = exactEntry(1);
  deleted.metadata = "goes with it";
  const uint64_t handle = agent().program(deleted);
  agent().begin();
  agent().del(0, deleted);
  agent().add(1, exactEntry(2));
  agent().end();  // and nobody ever waits for the outcome
  restart();
  ASSERT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().frontEnd.restored[0].key, exactEntry(2).key);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  EXPECT_EQ(agent().recordCount(), 1u);
  EXPECT_EQ(agent().handleOf(deleted), 0u);
  EXPECT_EQ(agent().metadataCount(), 0u);
  EXPECT_EQ(agent().record(exactTable, handle + 1)->entryState, EntryState::stable);
}

// Counts of forwarding agents that have ended stand under the handles of their time.
TEST_F(RestoreTest, HandlesOfDeletedEntriesNeverComeAgain) {
  agent().program(exactEntry(1));
  uint64_t last = agent().program(exactEntry(2));
  agent().remove(exactEntry(2));
  restart();
  const uint64_t next = agent().program(exactEntry(2));
  EXPECT_GT(next, last);
  last = next;
  agent().failCommits();
  agent().begin();  // a failed batch may be one whose reservation was not stored either
  agent().add(0, exactEntry(3));
  agent().end();
  EXPECT_FALSE(agent().outcome().empty());
  last = std::max(last, agent().program(exactEntry(3)));
  agent().remove(exactEntry(3));
  restart();
  EXPECT_GT(agent().program(exactEntry(3)), last);
}

TEST_F(RestoreTest, BatchThatWasNotEndedNeverWas) {
  agent().begin();
  agent().add(0, exactEntry(1));
  restart();
  EXPECT_TRUE(agent().frontEnd.restored.empty());
  expectEmpty(exactTable);
}

TEST_F(RestoreTest, RowsThatAreMissingAreWrittenAgain) {
  agent().program(exactEntry(1));
  // The type differs by a blank, so that the table's rows are dropped.
  restart(pipelineOf(smallP4Info(),
                     replaced(smallDeviceConfig(), "key ether_type : U16", "key ether_type: U16")));
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  forwarder().programAll();
  EXPECT_EQ(forwarder().rows().count({"exact", exactEntry(1).key}), 1u);
}

TEST_F(RestoreTest, EntriesOfVanishedTablesGo) {
  const Entry route{route6Table, prefix("20010db8 00000000 00000000 00000001", 128), drop, ""};
  agent().program(exactEntry(1));
  const uint64_t handle = agent().program(route);
  // Rows stand under the table's name, whatever its id.
  restart(pipelineOf(replaced(smallP4Info(), "id: 0x02000003", "id: 0x02000033"),
                     replaced(smallDeviceConfig(), "33554435", "33554483")));
  EXPECT_EQ(agent().frontEnd.restored.size(), 2u);
  EXPECT_EQ(agent().rowCount(0x02000033), 1u);
  EXPECT_EQ(agent().handleOf({0x02000033, route.key}), handle);
  restart(pipelineOf(replaced(smallP4Info(), "\"route6\"", "\"renamed\""),
                     replaced(smallDeviceConfig(), "\"route6\"", "\"renamed\"")));
  ASSERT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().frontEnd.restored[0].table, exactTable);
  EXPECT_EQ(agent().recordCount(), 1u);
  EXPECT_EQ(agent().rowCount(route6Table), 0u);
  EXPECT_EQ(agent().tableImpl->failures()->notRestored(), 1u);
  EXPECT_EQ(
      agent().tableImpl->failures()->notRestoredList(),
      "table route6, entry handle " + std::to_string(handle) + ": the pipeline has no such table");
  restart();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u) << "gone for good";
  EXPECT_EQ(agent().tableImpl->failures()->notRestored(), 0u);
}

// A restore after a change of pipeline found no room, when it had made rows of some records.
TEST_F(RestoreTest, RecordsKeptBesideTheirRowsCostNoEntry) {
  const uint64_t handle = agent().program(exactEntry(1));
  {
    const Vela::ActivityLock lock;
    std::string record, key;
    encodeRecord(*agent().record(exactTable, handle), record);
    for (int shift = 56; shift >= 0; shift -= 8) key += static_cast<char>(handle >> shift);
    Brine::Store& store = *agent().store;
    store.put(store.table("kept/exact"), Brine::asBytes(key), Brine::asBytes(record));
  }
  restart();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  EXPECT_EQ(agent().tableImpl->failures()->notRestored(), 0u);
  EXPECT_TRUE(agent().database->kept("exact").empty());
}

TEST_F(RestoreTest, EntryThatTheFrontEndRefusesGoesWholly) {
  // The second time the row is written again just before the refusal.
  const auto otherType = pipelineOf(
      smallP4Info(), replaced(smallDeviceConfig(), "key ether_type : U16", "key ether_type: U16"));
  uint64_t handle = 0;
  for (const auto& pipeline : {smallPipeline(), otherType}) {
    EXPECT_GT(agent().program(exactEntry(1)), handle) << "handles are not used twice all the same";
    handle = agent().lastHandle;
    start(pipeline);
    agent().frontEnd.refusal = PI_STATUS_INVALID_ENTRY_TYPE;
    restore();
    expectEmpty(exactTable);
  }
}

TEST_F(RestoreTest, RecordsThatMakeNoSenseGoAndTheOthersStay) {
  const uint64_t good = agent().program(exactEntry(1));
  TableCacheEntry record = *agent().record(exactTable, good);
  const struct {
    const char* what;
    void (*spoil)(TableCacheEntry&);
  } cases[] = {
      {"the key of another handle", [](auto& r) { r.key.entryHandle = 900; }},
      {"a handle beyond counting", [](auto& r) { r.key.entryHandle = UINT64_MAX; }},
      {"handle 0", [](auto& r) { r.key.entryHandle = 0; }},
      {"a handle that is taken", [](auto& r) { r.matchKeyDataIs(1, 9); }},
      {"a key of another length", [](auto& r) { r.key.entryHandle = 901, r.matchKeyDataIs(9, 1); }},
      {"a key longer than any",
       [](auto& r) { r.key.entryHandle = 902, r.matchKeyDataIs(2000, 1); }},
      {"an action of another table",
       [](auto& r) { r.key.entryHandle = 903, r.matchKeyDataIs(1, 9), r.actionId = setNexthop; }},
      {"action data of another length",
       [](auto& r) { r.key.entryHandle = 904, r.matchKeyDataIs(1, 9), r.actionDataIs(7, 1); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TableCacheEntry spoilt = record;
    c.spoil(spoilt);
    recordIs(spoilt);
    restart();
    EXPECT_EQ(agent().recordCount(), 1u);
    EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
    EXPECT_EQ(agent().handleOf(exactEntry(1)), good);
    EXPECT_EQ(agent().rowCount(exactTable), 1u);
    EXPECT_EQ(agent().tableImpl->failures()->notRestored(), 1u);
  }
}

// A flipped byte cost an entry without a word.
TEST_F(RestoreTest, ADamagedRecordIsNamedWithTableAndKeyAndTheOthersStay) {
  agent().program(exactEntry(1));
  const uint64_t lost = agent().program(exactEntry(2));
  flipBehind(agent().directory + "/brine.store", exactEntry(2).key, 6);
  testing::internal::CaptureStderr();
  start();
  {
    const Vela::ActivityLock lock;
    agent().tableImpl->tellDamagedRecords();  // an operator has asked before the entries are back
  }
  restore();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, testing::ContainsRegex("row of table exact, ether_type=[^\n]*damaged"));
  EXPECT_EQ(agent().tableImpl->failures()->failedEntries(), 1u);
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  EXPECT_EQ(agent().recordCount(), 1u);
  forwarder().takeSnapshot();
  EXPECT_EQ(forwarder().rows().size(), 1u);
  EXPECT_GT(agent().program(exactEntry(2)), lost);
  testing::internal::CaptureStderr();
  restart();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::Not(testing::HasSubstr("damaged")));
}

// Without its tables every record would look like one that the pipeline has no place for.
TEST_F(RestoreTest, WithoutAReadyPipelineNothingIsTouched) {
  agent().program(exactEntry(1));
  start();
  {
    const Vela::ActivityLock lock;
    agent().tableInfo->cleanupRequestIdInc(1);
    EXPECT_THROW(agent().tableImpl->restoreCachedEntries(), std::exception);
  }
  EXPECT_EQ(agent().recordCount(), 1u);
  restart();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
}

TEST_F(RestoreTest, RefusalThatMayPassRemovesNothing) {
  agent().program(exactEntry(1));
  start();
  agent().frontEnd.refusal = PI_STATUS_INVALID_TABLE_OPERATION;  // no pipeline is being restored
  EXPECT_THROW(restore(), std::exception);
  EXPECT_EQ(agent().recordCount(), 1u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
}

// A table that is not ready says nothing against the entries that belong there.
TEST_F(RestoreTest, TableThatIsNotReadyCostsNoEntry) {
  agent().program(exactEntry(1));
  start();
  {
    const Vela::ActivityLock lock;
    const auto& own = agent().tableInfo->latticeTableInterface({tableResource, exactTable});
    const auto other = Vela::make<Lattice::ArTableInterface>("exact", own->typeName(), [] {});
    agent().database->bindInterface(other, "exact", true);  // it takes the place of the own
    EXPECT_THROW(agent().tableImpl->restoreCachedEntries(), std::exception);
  }
  EXPECT_EQ(agent().recordCount(), 1u);
  restart();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
}

// It would forward for good, and nobody could delete it.
TEST_F(RestoreTest, RowThatNoEntryStandsForGoes) {
  agent().program(exactEntry(1));
  agent().program(exactEntry(2));
  {
    const Vela::ActivityLock lock;
    agent().tableImpl->tableCache()->cacheDel(
        {{tableResource, exactTable}, agent().handleOf(exactEntry(2))});
  }
  restart();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  forwarder().programAll();
  EXPECT_EQ(forwarder().rows().size(), 1u);
}

// A forwarding agent that outlived the agent reports as soon as it is attached, which may be before
// the entries are back.
TEST_F(RestoreTest, FailuresReportedBeforeTheEntriesAreBackAreListedOnceTheyAre) {
  const uint64_t handle = agent().program(exactEntry(1));
  const uint64_t handleSequence = agent().lastSequence();
  const uint64_t mended = agent().program(exactEntry(2));
  const uint64_t sequence = agent().lastSequence();
  start();
  const EntryFailures& failures = *agent().tableImpl->failures();
  const auto report = [&](uint64_t of, uint64_t at, ErrorCode code, uint64_t by) {
    const Vela::ActivityLock lock;
    const Lattice::Report said{of, at, static_cast<uint16_t>(code), "parity", by, "main"};
    agent().batchStatus->reportsAre({&said, 1});
  };
  report(handle, handleSequence, ErrorCode::hardwareError, 1);
  report(mended, sequence, ErrorCode::hardwareError, 1);
  report(mended, sequence, ErrorCode::none, 1);
  report(4711, sequence, ErrorCode::hardwareError, 1);
  report(mended, sequence, ErrorCode::hardwareError, 2);
  EXPECT_EQ(agent().tableImpl->forgetReportsOf(2), 0u);
  EXPECT_EQ(failures.failedEntries(), 0u);
  restore();
  EXPECT_EQ(failures.failedEntries(), 1u);
  EXPECT_THAT(failures.list(), testing::HasSubstr("error 3 parity (reported by main)"));
  EXPECT_EQ(failures.reportsOnNoRow(), 1u);
}

// The entry is not back yet when its failure comes, although the agent has known it before.
TEST_F(RestoreTest, FailuresReportedInTheMiddleOfALaterRestoreAreListed) {
  agent().program(exactEntry(1));
  const uint64_t handle = agent().program(exactEntry(2));
  const uint64_t sequence = agent().lastSequence();
  const auto report = [&](ErrorCode code) {
    const Vela::ActivityLock lock;
    const Lattice::Report said{handle, sequence, static_cast<uint16_t>(code), "parity", 1, "main"};
    agent().batchStatus->reportsAre({&said, 1});
  };
  for (const ErrorCode code : {ErrorCode::hardwareError, ErrorCode::none}) {
    const Vela::ActivityLock lock;
    TableImpl& tables = *agent().tableImpl;
    tables.beginRestore();
    EXPECT_FALSE(tables.advanceRestore(RestoreSlice::ofObjects(1)));
    EXPECT_EQ(tables.restoreProgress().entries, 1u);
    EXPECT_EQ(tables.restoreProgress().all, 2u);
    report(code);
    EXPECT_TRUE(tables.advanceRestore(RestoreSlice::whole()));
    EXPECT_EQ(tables.failures()->failedEntries(), code == ErrorCode::none ? 0u : 1u);
    EXPECT_EQ(tables.failures()->reportsOnNoRow(), 0u);
  }
}

TEST_F(RestoreTest, CanBeDoneAgainInTheSameProcess) {
  const uint64_t handle = agent().program(exactEntry(1));
  const uint64_t before = agent().lastSequence();
  restore();  // the server moved to another port
  EXPECT_EQ(agent().handleOf(exactEntry(1)), handle);
  EXPECT_EQ(agent().lastSequence(), before);
  EXPECT_THAT(agent().frontEnd.restored, testing::SizeIs(1));
}

// The front end keeps the entries of tables on which two pipelines agree.
TEST_F(RestoreTest, LeavesOutTablesThatStandUntilThereIsADoubt) {
  const uint64_t handle = agent().program(exactEntry(1));
  const Entry acl{aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 258};
  agent().program(acl);
  agent().frontEnd.kept = {exactTable, groupTable};
  const auto expectRestored = [&](size_t count, const char* why) {
    SCOPED_TRACE(why);
    agent().frontEnd.restored.clear();
    restore();
    EXPECT_THAT(agent().frontEnd.restored, testing::SizeIs(count));
    EXPECT_EQ(agent().handleOf(exactEntry(1)), handle);
    EXPECT_NE(agent().handleOf(acl), 0u);
  };
  expectRestored(2, "the process has just begun");
  const auto& tables = agent().tableImpl;
  tables->entriesStand();
  expectRestored(1, "they stood");
  expectRestored(2, "that restore may have failed");

  tables->entriesStand();
  tables->restoreNeededIs(true);
  expectRestored(2, "a batch whose outcome is not known");
  tables->restoreNeededIs(false);

  int files = 0;
  const auto changeTo = [&](const std::string& p4Info, const std::string& device) {
    tables->entriesStand();
    agent().pipelineIs(pipelineOf(p4Info, device), std::to_string(++files));
  };
  changeTo(smallP4Info(), smallDeviceConfig());
  expectRestored(1, "the same pipeline once more");
  changeTo(replaced(smallP4Info(), "size: 4", "size: 5"), smallDeviceConfig());
  expectRestored(1, "another size");

  const std::string row = *agent().row("exact");
  const uint64_t before = agent().lastSequence();
  const std::string first = "action_refs { id: 0x01000001 } action_refs { id: 0x01000003 } }";
  const std::string key = "key ether_type : U16; key port : U16;action { ";
  const std::string added =
      "set_nexthop 16777218 { nexthop : U32; dmac : EthAddr; src_addr : IpAddr; } ";
  changeTo(replaced(smallP4Info(), first, "action_refs { id: 0x01000002 } " + first),
           replaced(smallDeviceConfig(), key, key + added));
  expectRestored(1, "another action");
  EXPECT_EQ(*agent().row("exact"), row);
  EXPECT_EQ(agent().lastSequence(), before) << "forwarding agents hear of no change";

  changeTo(smallP4Info(), smallDeviceConfig());
  expectRestored(2, "an action has gone");
  EXPECT_EQ(*agent().row("exact"), row);
  EXPECT_GT(agent().lastSequence(), before) << "some rows might have had it";
  EXPECT_GT(agent().program(exactEntry(2)), handle);
}

}  // namespace
}  // namespace P4Runtime
