// Direct meters and counters, from Write to target to Read.
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::DirectMeterEntry;
using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class DirectResourceTest : public FrontendTest {
 protected:
  explicit DirectResourceTest(p4::v1::ForwardingPipelineConfig given = test::pipelineConfig())
      : FrontendTest(std::move(given)) {
    pipelineIsUp();
  }

  static TableEntry counted(uint32_t key) { return test::exact(test::kCounted, key); }
  static TableEntry keyOf(uint32_t key) {
    TableEntry entry = counted(key);
    entry.clear_action();
    return entry;
  }
  static p4::v1::MeterConfig setting(int64_t rate) {
    p4::v1::MeterConfig config;
    config.set_cir(rate);
    config.set_cburst(10);
    config.set_pir(2 * rate);
    config.set_pburst(0xffffffff);
    return config;
  }
  static TableEntry metered(uint32_t key, int64_t rate) {
    TableEntry entry = counted(key);
    *entry.mutable_meter_config() = setting(rate);
    return entry;
  }
  static DirectMeterEntry meterOf(uint32_t key, int64_t rate) {
    DirectMeterEntry meter;
    *meter.mutable_table_entry() = keyOf(key);
    if (rate != 0) *meter.mutable_config() = setting(rate);
    return meter;
  }
  static TableEntry wanting(TableEntry query, bool counter, bool meter) {
    if (counter) query.mutable_counter_data();
    if (meter) query.mutable_meter_config();
    return query;
  }
  static p4::v1::Entity countersOf(const TableEntry& entry) {
    p4::v1::Entity entity;
    *entity.mutable_direct_counter_entry()->mutable_table_entry() = entry;
    return entity;
  }
  static p4::v1::Entity metersOf(const TableEntry& entry) {
    p4::v1::Entity entity;
    *entity.mutable_direct_meter_entry()->mutable_table_entry() = entry;
    return entity;
  }
  const FakeTarget::Row& row() const { return target.rows().begin()->second; }
};

TEST_F(DirectResourceTest, MeterComesWithItsEntryAndIsReadIfWanted) {
  TableEntry entry = metered(1, 100);
  entry.set_metadata("blue");
  ASSERT_EQ(inserted(entry).code(), code::ok);
  ASSERT_TRUE(row().meter);
  EXPECT_EQ(row().meter->cir, 100u);
  EXPECT_EQ(row().meter->cburst, 10u);
  EXPECT_EQ(row().meter->pir, 200u);
  EXPECT_EQ(row().meter->pburst, 0xffffffffu);
  EXPECT_EQ(row().meter->meter_unit, PI_METER_UNIT_BYTES);
  TableEntry plain = entry;
  plain.clear_meter_config();
  for (const TableEntry& query : {test::query(test::kCounted), keyOf(1)}) {
    EXPECT_THAT(found(wanting(query, false, true)), ElementsAre(EqualsProto(entry)));
    EXPECT_THAT(found(query), ElementsAre(EqualsProto(plain)));
  }
  EXPECT_THAT(found(wanting(test::query(0), false, true)), ElementsAre(EqualsProto(entry)));
  restart();
  EXPECT_THAT(found(wanting(keyOf(1), false, true)), ElementsAre(EqualsProto(entry)));
}

TEST_F(DirectResourceTest, ModifyOfAnEntryDoesNotKeepTheMeter) {
  ASSERT_EQ(inserted(metered(1, 100)).code(), code::ok);
  TableEntry repeated = metered(1, 100);
  repeated.clear_action();
  ASSERT_EQ(written({test::update(Update::MODIFY, repeated)}).code(), code::ok);
  EXPECT_TRUE(row().meter);
  ASSERT_EQ(written({test::update(Update::MODIFY, keyOf(1))}).code(), code::ok);
  EXPECT_FALSE(row().meter);
  EXPECT_THAT(found(wanting(keyOf(1), false, true)), ElementsAre(EqualsProto(counted(1))));
}

TEST_F(DirectResourceTest, MeterEntryChangesTheMeterAlone) {
  TableEntry entry = counted(1);
  entry.set_metadata("blue");
  entry.set_controller_metadata(5);
  const auto modify = [&](const DirectMeterEntry& meter) {
    return test::update(Update::MODIFY, meter);
  };
  // In the Write that brings the entry, too.
  ASSERT_EQ(written({test::update(Update::INSERT, entry), modify(meterOf(1, 7))}).code(), code::ok);
  *entry.mutable_meter_config() = setting(7);
  EXPECT_THAT(found(wanting(keyOf(1), false, true)), ElementsAre(EqualsProto(entry)));
  EXPECT_EQ(row().metadata, "blue");
  EXPECT_EQ(row().meter->cir, 7u);
  std::vector<p4::v1::Entity> meters;
  ASSERT_EQ(objectsRead(metersOf(keyOf(1)), &meters), code::ok);
  ASSERT_THAT(meters, SizeIs(1));
  EXPECT_THAT(meters[0].direct_meter_entry(), EqualsProto(meterOf(1, 7)));

  ASSERT_EQ(written({modify(meterOf(1, 0))}).code(), code::ok);
  EXPECT_FALSE(row().meter);
  ASSERT_EQ(objectsRead(metersOf(test::query(0)), &meters), code::ok);
  ASSERT_THAT(meters, SizeIs(1));
  EXPECT_THAT(meters[0].direct_meter_entry(), EqualsProto(meterOf(1, 0)));
  EXPECT_THAT(test::codesOf(written({modify(meterOf(2, 7))})), ElementsAre(code::notFound));
}

TEST_F(DirectResourceTest, CountersAreReadFromTheTarget) {
  ASSERT_EQ(
      written({test::update(Update::INSERT, counted(1)), test::update(Update::INSERT, counted(2)),
               test::update(Update::INSERT, test::exact(test::kInitial, 1))})
          .code(),
      code::ok);
  target.countIs(row().handle, {PI_COUNTER_UNIT_BYTES | PI_COUNTER_UNIT_PACKETS, 700, 7});
  TableEntry first = counted(1);
  first.mutable_counter_data()->set_byte_count(700);
  first.mutable_counter_data()->set_packet_count(7);
  EXPECT_THAT(found(wanting(keyOf(1), true, false)), ElementsAre(EqualsProto(first)));
  EXPECT_THAT(found(wanting(keyOf(2), true, false)),
              ElementsAre(EqualsProto(wanting(counted(2), true, false))));
  std::vector<p4::v1::Entity> counters;
  for (const uint32_t table : {0u, test::kCounted}) {
    ASSERT_EQ(objectsRead(countersOf(test::query(table)), &counters), code::ok);
    EXPECT_THAT(counters, SizeIs(2));
  }
  ASSERT_EQ(objectsRead(countersOf(keyOf(1)), &counters), code::ok);
  ASSERT_THAT(counters, SizeIs(1));
  p4::v1::Entity expected = countersOf(keyOf(1));
  *expected.mutable_direct_counter_entry()->mutable_data() = first.counter_data();
  EXPECT_THAT(counters[0], EqualsProto(expected));
}

TEST_F(DirectResourceTest, ReadsThatCannotBeAnswered) {
  ASSERT_EQ(inserted(counted(1)).code(), code::ok);
  TableEntry defaultEntry = test::query(test::kCounted);
  defaultEntry.set_is_default_action(true);
  p4::v1::Entity colors = metersOf(keyOf(1));
  colors.mutable_direct_meter_entry()->mutable_counter_data();
  const struct {
    const char* what;
    p4::v1::Entity query;
    int code;
  } cases[] = {
      {"no such entry", countersOf(keyOf(2)), code::notFound},
      {"no such entry's meter", metersOf(keyOf(2)), code::notFound},
      {"no counter", countersOf(test::query(test::kIpv4)), code::invalidArgument},
      {"no table", countersOf(test::query(0x02000099)), code::invalidArgument},
      {"the default entry", countersOf(defaultEntry), code::unimplemented},
      {"colors", colors, code::unimplemented},
  };
  std::vector<p4::v1::Entity> found;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(objectsRead(c.query, &found), c.code);
    EXPECT_THAT(found, IsEmpty());
  }
  target.counterStatusIs(PI_STATUS_TARGET_ERROR);
  EXPECT_EQ(objectsRead(countersOf(keyOf(1)), &found), code::internal);
}

TEST_F(DirectResourceTest, CountersOfEntriesThatGoMeanwhileFailNoRead) {
  ASSERT_EQ(
      written({test::update(Update::INSERT, counted(1)), test::update(Update::INSERT, counted(2))})
          .code(),
      code::ok);
  target.counterStatusIs(PI_STATUS_TARGET_ERROR);
  target.onCountIs([&] {
    EXPECT_EQ(
        written({test::update(Update::DELETE, keyOf(1)), test::update(Update::DELETE, keyOf(2))})
            .code(),
        code::ok);
  });
  std::vector<p4::v1::Entity> counters;
  EXPECT_EQ(objectsRead(countersOf(test::query(test::kCounted)), &counters), code::ok);
  EXPECT_THAT(counters, SizeIs(2)) << "as they were when the Read began";
}

// Queries of one table share the walk, yet each gets its own result.
TEST_F(DirectResourceTest, QueriesOfOneTableGetTheirOwnForms) {
  ASSERT_EQ(inserted(metered(1, 5)).code(), code::ok);
  const TableEntry all = test::query(test::kCounted);
  Entries entries;
  ASSERT_EQ(read({all, wanting(all, true, false), wanting(all, false, true)}, &entries).code(),
            code::ok);
  EXPECT_THAT(entries, testing::UnorderedElementsAre(EqualsProto(counted(1)),
                                                     EqualsProto(wanting(counted(1), true, false)),
                                                     EqualsProto(metered(1, 5))));
}

TEST_F(DirectResourceTest, CounterEntryWithoutDataChangesNothing) {
  ASSERT_EQ(inserted(counted(1)).code(), code::ok);
  const auto counter = [](uint32_t key, bool data, Update::Type type = Update::MODIFY) {
    Update update;
    update.set_type(type);
    *update.mutable_entity() = countersOf(keyOf(key));
    if (data) update.mutable_entity()->mutable_direct_counter_entry()->mutable_data();
    return update;
  };
  EXPECT_THAT(test::codesOf(written({counter(1, false), counter(2, false), counter(1, true),
                                     counter(1, false, Update::DELETE)})),
              ElementsAre(code::ok, code::notFound, code::unimplemented, code::invalidArgument));
  EXPECT_THAT(target.batches(), SizeIs(1));
}

// Of default entries: in the row of the default entry, which has the program's action until a
// controller sets one.
class DefaultResourceTest : public DirectResourceTest {
 protected:
  DefaultResourceTest() : DirectResourceTest(withDefault()) {
    target.abilitiesAre({.default_actions = 1, .entities = 1, .default_resources = 1});
    restart();
  }
  static p4::v1::ForwardingPipelineConfig withDefault() {
    p4::v1::ForwardingPipelineConfig config = test::pipelineConfig();
    for (auto& table : *config.mutable_p4info()->mutable_tables()) {
      if (table.preamble().id() != test::kCounted) continue;
      table.mutable_initial_default_action()->set_action_id(test::kDrop);
    }
    return config;
  }
  static TableEntry key() {
    TableEntry entry = test::query(test::kCounted);
    entry.set_is_default_action(true);
    return entry;
  }
  static TableEntry whole(int64_t rate) {
    TableEntry entry = key();
    entry.mutable_action()->mutable_action()->set_action_id(test::kDrop);
    entry.mutable_counter_data();
    if (rate != 0) *entry.mutable_meter_config() = setting(rate);
    return entry;
  }
  int setMeter(int64_t rate) {
    DirectMeterEntry meter;
    *meter.mutable_table_entry() = key();
    if (rate != 0) *meter.mutable_config() = setting(rate);
    return written({test::update(Update::MODIFY, meter)}).code();
  }
  int setCount(int64_t packets) {
    Update update;
    update.set_type(Update::MODIFY);
    auto& counter = *update.mutable_entity()->mutable_direct_counter_entry();
    *counter.mutable_table_entry() = key();
    counter.mutable_data()->set_packet_count(packets);
    return written({update}).code();
  }
  std::vector<p4::v1::Entity> resources(const p4::v1::Entity& query) const {
    std::vector<p4::v1::Entity> found;
    EXPECT_EQ(objectsRead(query, &found), code::ok);
    return found;
  }
};

TEST_F(DefaultResourceTest, AreWrittenAndReadAloneAndWithTheEntry) {
  const TableEntry query = wanting(key(), true, true);
  EXPECT_THAT(found(query), ElementsAre(EqualsProto(whole(0)))) << "the program's own";
  ASSERT_EQ(setMeter(0), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty()) << "nothing to change";
  ASSERT_EQ(setMeter(100), code::ok);
  ASSERT_THAT(target.rows(), SizeIs(1));
  EXPECT_EQ(row().actionId, test::kDrop);
  ASSERT_TRUE(row().meter);
  EXPECT_EQ(row().meter->cir, 100u);
  ASSERT_EQ(setCount(7), code::ok);
  ASSERT_TRUE(row().counts);
  EXPECT_EQ(row().counts->packets, 7u);
  EXPECT_EQ(row().meter->cir, 100u) << "kept";
  target.countIs(row().handle, {PI_COUNTER_UNIT_PACKETS, 0, 9});
  TableEntry counted = whole(100);
  counted.mutable_counter_data()->set_packet_count(9);
  restart();
  EXPECT_THAT(found(query), ElementsAre(EqualsProto(counted)));
  for (const TableEntry& one : {key(), [] {
                                  TableEntry all;
                                  all.set_is_default_action(true);
                                  return all;
                                }()}) {
    const auto counters = resources(countersOf(one));
    ASSERT_THAT(counters, SizeIs(1));
    EXPECT_THAT(counters[0].direct_counter_entry().table_entry(), EqualsProto(key()));
    EXPECT_EQ(counters[0].direct_counter_entry().data().packet_count(), 9);
    const auto meters = resources(metersOf(one));
    ASSERT_THAT(meters, SizeIs(1));
    EXPECT_THAT(meters[0].direct_meter_entry().config(), EqualsProto(setting(100)));
  }
  EXPECT_THAT(resources(countersOf(test::query(test::kCounted))), IsEmpty()) << "no entry";

  TableEntry written = key();
  *written.mutable_meter_config() = setting(5);
  ASSERT_EQ(this->written({test::update(Update::MODIFY, written)}).code(), code::ok);
  EXPECT_EQ(row().meter->cir, 5u);
  ASSERT_EQ(this->written({test::update(Update::MODIFY, key())}).code(), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty()) << "set back";
  EXPECT_THAT(found(query), ElementsAre(EqualsProto(whole(0))));
}

}  // namespace
}  // namespace pi::fe::proto
