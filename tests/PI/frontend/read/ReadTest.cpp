// Reads: filters, refusals, and the division into messages.
#include <atomic>
#include <latch>
#include <thread>

#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::SizeIs;

class ReadTest : public FrontendTest {
 protected:
  ReadTest() { pipelineIsUp(); }

  static TableEntry defaultOf(uint32_t table) {
    TableEntry entry = test::query(table);
    entry.set_is_default_action(true);
    return entry;
  }
  // Entries of a kilobyte each.
  static std::vector<Update> longInserts(uint32_t count) {
    std::vector<Update> updates;
    for (uint32_t n = 1; n <= count; ++n) {
      TableEntry entry = test::exact(test::kCounted, n);
      entry.set_metadata(std::string(1000, 'm'));
      updates.push_back(test::update(Update::INSERT, entry));
    }
    return updates;
  }
};

TEST_F(ReadTest, FiltersTakeWhatTheyName) {
  TableEntry tagged = test::ipv4(1, 0x0a000000, 8, 1);
  tagged.set_metadata("tag");
  tagged.set_controller_metadata(5);
  TableEntry dropped = test::ipv4(2, 0x0a000000, 8, 1);
  dropped.mutable_action()->mutable_action()->Clear();
  dropped.mutable_action()->mutable_action()->set_action_id(test::kDrop);
  std::vector<Update> updates;
  for (const TableEntry& entry : {tagged, dropped, test::ipv4(1, 0, 0, 2), test::acl(1, 0xff, 10),
                                  test::acl(1, 0xff, 20), test::exact(test::kCounted, 4)}) {
    updates.push_back(test::update(Update::INSERT, entry));
  }
  ASSERT_EQ(written(updates).code(), code::ok);
  const auto with = [](uint32_t table, const std::function<void(TableEntry&)>& change) {
    TableEntry query = test::query(table);
    change(query);
    return query;
  };
  TableEntry anyPriority = test::acl(1, 0xff, 0);
  anyPriority.clear_action();
  TableEntry oneAcl = test::acl(1, 0xff, 20);
  const struct {
    const char* what;
    TableEntry query;
    size_t entries;
  } cases[] = {
      {"all tables", test::query(0), 6},
      {"one table", test::query(test::kIpv4), 3},
      {"a whole key", test::ipv4Key(1, 0x0a000000, 8), 1},
      {"a whole key with a field left out", test::ipv4Key(1, 0, 0), 1},
      {"a key that is not there", test::ipv4Key(1, 0x0a000000, 9), 0},
      {"a match with any priority", anyPriority, 2},
      {"a match with its priority", oneAcl, 1},
      {"a priority", with(test::kAcl, [](auto& q) { q.set_priority(10); }), 1},
      {"an action",
       with(test::kIpv4,
            [](auto& q) { q.mutable_action()->mutable_action()->set_action_id(test::kDrop); }),
       1},
      {"metadata", with(test::kIpv4, [](auto& q) { q.set_metadata("tag"); }), 1},
      {"controller metadata", with(test::kIpv4, [](auto& q) { q.set_controller_metadata(5); }), 1},
      {"filters together",
       with(test::kIpv4,
            [](auto& q) {
              q.set_metadata("tag");
              q.set_controller_metadata(6);
            }),
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT(found(c.query), SizeIs(c.entries));
  }
  EXPECT_THAT(found(test::ipv4Key(1, 0x0a000000, 8)), ElementsAre(EqualsProto(tagged)));
}

TEST_F(ReadTest, DefaultEntriesAreTheProgramsOwn) {
  TableEntry ofIpv4 = defaultOf(test::kIpv4);
  auto* action = ofIpv4.mutable_action()->mutable_action();
  action->set_action_id(test::kForward);
  for (const uint64_t value : {1, 2}) {
    auto* param = action->add_params();
    param->set_param_id(action->params_size());
    param->set_value(test::number(value));
  }
  TableEntry ofAcl = defaultOf(test::kAcl);
  ofAcl.mutable_action()->mutable_action()->set_action_id(test::kNoAction);
  TableEntry ofConst = defaultOf(test::kConst);
  ofConst.mutable_action()->mutable_action()->set_action_id(test::kDrop);
  ofConst.set_is_const(true);
  for (const TableEntry& expected : {ofIpv4, ofAcl, ofConst, defaultOf(test::kPort)}) {
    EXPECT_THAT(found(defaultOf(expected.table_id())), ElementsAre(EqualsProto(expected)));
  }
  EXPECT_THAT(found(defaultOf(0)), SizeIs(config.p4info().tables_size())) << "of all tables";
}

TEST_F(ReadTest, EachQueryIsAnsweredByItself) {
  ASSERT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::ok);
  const auto with = [](TableEntry query, const std::function<void(TableEntry&)>& change) {
    change(query);
    return query;
  };
  const TableEntry counted = test::query(test::kCounted);
  p4::v1::ReadRequest request = test::readOf({
      counted,
      test::query(0x02000099),
      test::query(test::kOther),
      with(test::query(0), [](auto& q) { q.set_priority(1); }),
      with(test::query(test::kIpv4), [](auto& q) { q.set_priority(1); }),
      with(test::query(test::kIpv4), [](auto& q) { q.add_match()->set_field_id(1); }),
      with(counted, [](auto& q) { q.mutable_action()->set_action_profile_group_id(1); }),
      with(counted, [](auto& q) { q.mutable_meter_counter_data(); }),
      with(test::query(test::kIpv4), [](auto& q) { q.mutable_counter_data(); }),
      with(test::query(test::kIpv4), [](auto& q) { q.mutable_time_since_last_hit(); }),
      with(defaultOf(test::kIpv4), [](auto& q) { q.set_priority(1); }),
  });
  request.add_entities();
  request.add_entities()->mutable_counter_entry()->set_counter_id(0x12000001);
  auto* cell = request.add_entities()->mutable_counter_entry();
  cell->set_counter_id(0x12000001);
  cell->mutable_index()->set_index(8);
  size_t entries = 0;
  const Status status = device->read(request, [&](const p4::v1::ReadResponse& response) {
    entries += response.entities_size();
    return true;
  });
  EXPECT_EQ(status.code(), code::unknown);
  EXPECT_EQ(entries, 1u);
  EXPECT_THAT(
      test::codesOf(status),
      ElementsAre(code::ok, code::invalidArgument, code::unimplemented, code::invalidArgument,
                  code::invalidArgument, code::invalidArgument, code::invalidArgument,
                  code::unimplemented, code::ok, code::invalidArgument, code::invalidArgument,
                  code::invalidArgument, code::unimplemented, code::outOfRange));
}

// Of entries of a table with idle time-outs.
class LastHitTest : public FrontendTest {
 protected:
  LastHitTest() {
    target.abilitiesAre({.fields = 1, .entities = 1});
    pipelineIsUp();
    for (const uint16_t n : {1, 2, 3}) {
      EXPECT_EQ(inserted(test::exact(test::kCounted, n)).code(), code::ok);
      EXPECT_EQ(inserted(test::ipv4(1, uint32_t{n} << 24, 8, 1)).code(), code::ok);
    }
  }
  static TableEntry timed(TableEntry query) {
    query.mutable_time_since_last_hit();
    return query;
  }
  static TableEntry key(uint16_t n) {
    TableEntry query = test::exact(test::kCounted, n);
    query.clear_action();
    return query;
  }
  uint64_t handleOf(uint16_t n) {
    uint64_t handle = 0;
    for (const auto& [row, stored] : target.rows()) {
      if (row.tableId == test::kCounted && static_cast<uint8_t>(row.bytes.back()) == n) {
        handle = stored.handle;
      }
    }
    return handle;
  }
  // "TABLE NANOSECONDS" of each entry of a Read, "TABLE -" of one without; sorted.
  Status read(const std::vector<TableEntry>& queries, std::vector<std::string>* times) {
    p4::v1::ReadRequest request;
    for (const TableEntry& query : queries) *request.add_entities()->mutable_table_entry() = query;
    times->clear();
    const Status status = device->read(request, [&](const p4::v1::ReadResponse& response) {
      for (const auto& entity : response.entities()) {
        const TableEntry& entry = entity.table_entry();
        const char* table = entry.table_id() == test::kCounted ? "counted " : "ipv4 ";
        times->push_back(table + (entry.has_time_since_last_hit()
                                      ? std::to_string(entry.time_since_last_hit().elapsed_ns())
                                      : "-"));
      }
      return true;
    });
    std::ranges::sort(*times);
    return status;
  }
};

TEST_F(LastHitTest, IsToldWhereItIsAskedFor) {
  target.lastHits.times = {{handleOf(1), 0}, {handleOf(2), UINT64_MAX - 1}};
  TableEntry twice = timed(test::query(test::kCounted));
  twice.mutable_counter_data();
  const std::string longest = "counted " + std::to_string(INT64_MAX);
  const struct {
    const char* what;
    std::vector<TableEntry> queries;
    std::vector<std::string> times;
    size_t calls;
  } cases[] = {
      {"not asked for", {test::query(test::kCounted)}, {"counted -", "counted -", "counted -"}, 0},
      {"of a table", {timed(test::query(test::kCounted))}, {"counted -", "counted 0", longest}, 1},
      {"of one entry", {timed(key(1))}, {"counted 0"}, 1},
      {"of no entry", {timed(key(9))}, {}, 0},
      {"with and without",
       {test::query(test::kCounted), timed(key(1)), timed(key(2))},
       {"counted -", "counted -", "counted -", "counted 0", longest},
       2},
      {"with a counter", {twice}, {"counted -", "counted 0", longest}, 1},
      {"of all tables",
       {timed(test::query(0))},
       {"counted -", "counted 0", longest, "ipv4 -", "ipv4 -", "ipv4 -"},
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    target.lastHits.calls.clear();
    std::vector<std::string> times;
    EXPECT_EQ(read(c.queries, &times).code(), code::ok);
    EXPECT_EQ(times, c.times);
    EXPECT_THAT(target.lastHits.calls, SizeIs(c.calls));
  }
}

TEST_F(LastHitTest, IsNotToldOfWhatHasNone) {
  TableEntry ofDefault = timed(test::query(test::kCounted));
  ofDefault.set_is_default_action(true);
  std::vector<std::string> times;
  const Status status = read({timed(test::query(test::kIpv4)), ofDefault}, &times);
  EXPECT_THAT(test::codesOf(status), ElementsAre(code::invalidArgument, code::invalidArgument));
  EXPECT_THAT(status.details(0).SerializeAsString(), testing::HasSubstr("ingress.ipv4"));
  EXPECT_THAT(target.lastHits.calls, SizeIs(0));
}

// Who asked for it hears of the failure, and the others get their entries.
TEST_F(LastHitTest, FailuresAreOfTheQueriesThatAskForIt) {
  const TableEntry all = timed(test::query(0)), table = timed(test::query(test::kCounted)),
                   plain = test::query(test::kCounted);
  const std::vector<std::string> three = {"counted -", "counted -", "counted -"};
  const std::vector<std::string> six = {"counted -", "counted -", "counted -",
                                        "ipv4 -",    "ipv4 -",    "ipv4 -"};
  const std::vector<std::string> others = {"ipv4 -", "ipv4 -", "ipv4 -"};
  const struct {
    const char* what;
    int code;
    std::vector<TableEntry> queries;
    std::vector<int> codes;
    std::vector<std::string> entries;
  } cases[] = {
      {"nobody can tell",
       code::unimplemented,
       {table, plain},
       {code::unimplemented, code::ok},
       three},
      {"nobody can tell of one entry",
       code::unimplemented,
       {timed(key(1))},
       {code::unimplemented},
       {}},
      {"nobody can tell, of all tables", code::unimplemented, {all}, {}, six},
      {"of all and of one",
       code::unimplemented,
       {all, table},
       {code::ok, code::unimplemented},
       six},
      {"not in time", code::unavailable, {table, plain}, {code::unavailable, code::ok}, three},
      {"not in time, of all tables", code::unavailable, {all}, {code::unavailable}, others},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    target.lastHits.code = c.code;
    target.lastHits.calls.clear();
    std::vector<std::string> times;
    const Status status = read(c.queries, &times);
    EXPECT_EQ(test::codesOf(status), c.codes);
    EXPECT_EQ(times, c.entries);
    EXPECT_THAT(target.lastHits.calls, SizeIs(1));
    if (c.codes.empty()) continue;
    EXPECT_THAT(status.ShortDebugString(), testing::HasSubstr("nobody tells"));
  }
}

// A table is asked for in pieces, and no more after a failure.
TEST_F(LastHitTest, OfLargeTablesIsAskedInPieces) {
  std::vector<Update> more;
  for (uint16_t n = 4; n <= 600; ++n) {
    more.push_back(test::update(Update::INSERT, test::exact(test::kCounted, n)));
  }
  ASSERT_EQ(written(more).code(), code::ok);
  std::vector<std::string> times;
  EXPECT_EQ(read({timed(test::query(test::kCounted))}, &times).code(), code::ok);
  EXPECT_THAT(times, SizeIs(600));
  const size_t calls = target.lastHits.calls.size();
  EXPECT_GT(calls, 3u);
  for (const auto& handles : target.lastHits.calls) EXPECT_LE(handles.size(), 200u);

  target.lastHits.calls.clear();
  target.lastHits.code = code::unavailable;
  target.lastHits.toldCalls = 2;
  EXPECT_THAT(test::codesOf(read({timed(test::query(test::kCounted))}, &times)),
              ElementsAre(code::unavailable));
  EXPECT_THAT(times, testing::AllOf(SizeIs(testing::Gt(0u)), SizeIs(testing::Lt(600u))));
  EXPECT_THAT(target.lastHits.calls, SizeIs(3));
}

// Controllers begin with "delete everything", on any switch.
TEST_F(ReadTest, OfKindsThatAreNotThereAllIsNothing) {
  p4::v1::ReadRequest request;
  const auto add = [&] { return request.add_entities(); };
  add()->mutable_extern_entry();
  add()->mutable_meter_entry();
  add()->mutable_counter_entry();
  add()->mutable_register_entry();
  add()->mutable_value_set_entry();
  add()->mutable_digest_entry();
  add()->mutable_digest_entry()->set_digest_id(0x17000001);
  add()->mutable_packet_replication_engine_entry()->mutable_multicast_group_entry();
  add()->mutable_packet_replication_engine_entry()->mutable_clone_session_entry();
  add()->mutable_direct_meter_entry()->mutable_counter_data();
  TableEntry* all = add()->mutable_table_entry();
  all->mutable_meter_config();
  all->mutable_counter_data();
  all->mutable_meter_counter_data();
  all->mutable_time_since_last_hit();
  size_t responses = 0;
  const auto nothing = [&](const p4::v1::ReadResponse& response) {
    ++responses;
    EXPECT_THAT(response.entities(), SizeIs(0));
    return true;
  };
  EXPECT_EQ(device->read(request, nothing).code(), code::ok);
  EXPECT_EQ(responses, 1u) << "some clients wait for one";

  request.Clear();
  add()->mutable_counter_entry()->set_counter_id(0x12000001);
  add()
      ->mutable_packet_replication_engine_entry()
      ->mutable_multicast_group_entry()
      ->set_multicast_group_id(7);
  add()->mutable_digest_entry()->set_digest_id(0x17000009);
  EXPECT_THAT(test::codesOf(device->read(request, nothing)),
              ElementsAre(code::unimplemented, code::unimplemented, code::invalidArgument));
}

TEST_F(ReadTest, EqualQueriesAreAnsweredOnceAndDifferentOnesAreBounded) {
  ASSERT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::ok);
  TableEntry counts = test::query(test::kCounted);
  counts.mutable_counter_data();
  TableEntry one = test::exact(test::kCounted, 1);
  one.clear_action();
  Entries queries(50000, counts);
  queries.resize(99999, one);
  queries.push_back(test::query(0x02000099));
  Entries entries;
  EXPECT_THAT(read(queries, &entries).message(), testing::HasSubstr("1 of 100000 queries failed"));
  EXPECT_THAT(entries, SizeIs(2));
  EXPECT_EQ(target.countCalls(), 1u);

  queries.clear();
  for (uint64_t n = 1; n <= 257; ++n) {
    queries.push_back(test::query(test::kCounted));
    queries.back().set_controller_metadata(n);
    queries.push_back(test::acl(static_cast<uint32_t>(n), 0xffff, 0));  // of any priority
    queries.back().clear_action();
  }
  ASSERT_EQ(inserted(test::acl(257, 0xffff, 5)).code(), code::ok);
  std::vector<int> expected(queries.size(), code::ok);
  expected[512] = code::resourceExhausted;
  EXPECT_EQ(test::codesOf(read(queries, &entries)), expected);
  EXPECT_THAT(entries, ElementsAre(EqualsProto(test::acl(257, 0xffff, 5))));
}

TEST_F(ReadTest, LargeTablesComeInSmallPieces) {
  ASSERT_EQ(written(longInserts(3000)).code(), code::ok);
  std::vector<size_t> sizes;
  size_t entities = 0;
  const auto request = test::readOf({test::query(0)});
  EXPECT_EQ(device
                ->read(request,
                       [&](const p4::v1::ReadResponse& response) {
                         sizes.push_back(response.ByteSizeLong());
                         entities += response.entities_size();
                         return true;
                       })
                .code(),
            code::ok);
  EXPECT_EQ(entities, 3000u);
  EXPECT_GT(sizes.size(), 3000u * 1000 / (32 * 1024));
  EXPECT_THAT(sizes, testing::Each(testing::Le(32u * 1024)));
  int calls = 0;
  EXPECT_EQ(device->read(request, [&](const p4::v1::ReadResponse&) { return ++calls < 2; }).code(),
            code::cancelled);
  EXPECT_EQ(calls, 2) << "the client had gone";
}

// A client that takes its time sees the entries of the moment it asked, with the counts of now;
// entries deleted meanwhile have counted nothing.
TEST_F(ReadTest, WritesBesideASlowReadDoNotShowInIt) {
  constexpr uint32_t kEntries = 400;
  const std::vector<Update> inserts = longInserts(kEntries);
  std::vector<Update> deletes = inserts;
  for (Update& update : deletes) update.set_type(Update::DELETE);
  ASSERT_EQ(written(inserts).code(), code::ok);
  TableEntry query = test::query(test::kCounted);
  query.mutable_counter_data();
  const size_t callsBefore = target.countCalls();
  size_t entities = 0;
  const Status status =
      device->read(test::readOf({query}), [&](const p4::v1::ReadResponse& response) {
        if (entities == 0) {
          EXPECT_EQ(written(deletes).code(), code::ok);
          target.counterStatusIs(PI_STATUS_TARGET_ERROR);
        }
        entities += response.entities_size();
        return true;
      });
  EXPECT_EQ(status.code(), code::ok) << status.message();
  EXPECT_EQ(entities, kEntries);
  EXPECT_LE(target.countCalls() - callsBefore, kEntries / EntryPages::kPageEntries + 1);
  EXPECT_THAT(found(test::query(0)), SizeIs(0));
}

TEST_F(ReadTest, ClientsThatTakeTheirTimeHoldUpNobody) {
  ASSERT_EQ(written(longInserts(100)).code(), code::ok);  // several messages
  constexpr size_t kClients = 40;
  std::latch allAsk(kClients);
  std::latch others(1);
  {
    std::vector<std::jthread> clients;
    for (size_t i = 0; i < kClients; ++i) {
      clients.emplace_back([&] {
        size_t entities = 0;
        const auto sink = [&](const p4::v1::ReadResponse& response) {
          if (entities == 0) allAsk.count_down();
          others.wait();
          entities += response.entities_size();
          return true;
        };
        EXPECT_EQ(device->read(test::readOf({test::query(0)}), sink).code(), code::ok);
        EXPECT_EQ(entities, 100u);
      });
    }
    allAsk.wait();
    EXPECT_EQ(inserted(test::exact(test::kInitial, 1)).code(), code::ok);
    EXPECT_THAT(found(test::query(0)), SizeIs(101));
    others.count_down();
  }
}

// Every Write replaces all entries, in three steps; between Writes the port equals the VRF. A read
// that shows two VRFs, another port, or another number of entries saw part of a Write.
TEST_F(ReadTest, SeesEachWriteWhollyOrNotAtAll) {
  constexpr uint32_t kEntries = 50;
  constexpr uint32_t kWrites = 60;
  const auto all = [](Update::Type type, uint32_t vrf, uint32_t port) {
    std::vector<Update> updates;
    for (uint32_t n = 0; n < kEntries; ++n) {
      updates.push_back(test::update(type, test::ipv4(vrf, n << 8, 24, port)));
    }
    return updates;
  };
  ASSERT_EQ(written(all(Update::INSERT, 1, 1)).code(), code::ok);
  std::atomic<bool> done{false};
  std::jthread writer([&] {
    for (uint32_t i = 1; i < kWrites; ++i) {
      std::vector<Update> updates = all(Update::MODIFY, i, i + 1);  // again in a second batch
      const std::vector<Update> gone = all(Update::DELETE, i, 0);
      const std::vector<Update> fresh = all(Update::INSERT, i + 1, i + 1);
      updates.insert(updates.end(), gone.begin(), gone.end());
      updates.insert(updates.end(), fresh.begin(), fresh.end());
      EXPECT_EQ(written(updates).code(), code::ok);
    }
    done = true;
  });
  size_t reads = 0;
  while (!done || reads == 0) {
    const Entries entries = found(test::query(0));
    ASSERT_EQ(entries.size(), kEntries);
    for (const TableEntry& entry : entries) {
      ASSERT_EQ(entry.match(0).exact().value(), entries[0].match(0).exact().value());
      ASSERT_EQ(entry.match(0).exact().value(), entry.action().action().params(0).value());
    }
    ++reads;
  }
}

// Each question takes a turn of the target's lock.
TEST_F(ReadTest, CellsOfAnArrayAreCountedTogether) {
  constexpr int64_t kCells = 65536;
  target.abilitiesAre({.fields = 1, .default_actions = 1, .entities = 1});
  p4::v1::ForwardingPipelineConfig large = config;
  large.mutable_p4info()->mutable_counters(0)->set_size(kCells);
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, large).code(), code::ok);
  target.restored(0, "");
  p4::v1::Entity query;
  query.mutable_counter_entry()->set_counter_id(0x12000001);
  std::vector<p4::v1::Entity> cells;
  ASSERT_EQ(objectsRead(query, &cells), code::ok);
  ASSERT_THAT(cells, SizeIs(kCells));
  EXPECT_LE(target.cellCalls(), 64u);
  for (int64_t i = 0; i < kCells; ++i) {
    ASSERT_EQ(cells[i].counter_entry().index().index(), i);
    ASSERT_EQ(cells[i].counter_entry().data().packet_count(), i);
  }
  query.mutable_counter_entry()->mutable_index()->set_index(7);
  ASSERT_EQ(objectsRead(query, &cells), code::ok);
  ASSERT_THAT(cells, SizeIs(1));
  EXPECT_EQ(cells[0].counter_entry().data().byte_count(), 7 * 64);
}

// For controllers that compare bytes.
TEST_F(ReadTest, NumbersAreAsLongAsTheirWidthsIfTheOperatorSaysSo) {
  ASSERT_EQ(inserted(test::ipv4(5, 0x0a000000, 8, 7)).code(), code::ok);
  ASSERT_EQ(inserted(test::oneShot(1, {{7, 1}})).code(), code::ok);
  DeviceMgr::set_answers_padded(true);
  const auto entries = found(test::query(0));
  const Entries defaults = found(defaultOf(test::kIpv4));
  DeviceMgr::set_answers_padded(false);
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_EQ(entries[0].match(0).exact().value(), std::string("\0\5", 2));
  EXPECT_EQ(entries[0].action().action().params(0).value(), std::string("\0\7", 2));
  const auto& set = entries[1].action().action_profile_action_set();
  EXPECT_EQ(set.action_profile_actions(0).action().params(0).value(), std::string("\0\7", 2));
  ASSERT_THAT(defaults, SizeIs(1));
  EXPECT_EQ(defaults[0].action().action().params(1).value(), std::string("\0\0\0\0\0\2", 6));
  for (const TableEntry& entry : entries) {
    EXPECT_EQ(written({test::update(Update::DELETE, entry)}).code(), code::ok) << "as it was read";
  }
}

}  // namespace
}  // namespace pi::fe::proto
