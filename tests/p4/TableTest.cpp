// Match structures against plain search, entries and profiles by what packets meet, and commits as
// seen by a packet thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "p4/program/ProgramError.h"
#include "p4/tables/Refusal.h"
#include "tests/p4/Playing.h"

namespace P4Test {
namespace {

using P4::MatchKind;
using testing::ElementsAre;

// The entry that plain search finds.
const P4::Entry* plainFind(const P4::KeyShape& shape, const std::vector<P4::Entry*>& entries,
                           const std::vector<P4::Number>& key,
                           const std::vector<std::vector<P4::MatchElement>>& matches) {
  const P4::Entry* best = nullptr;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i]) continue;
    bool hit = true;
    for (size_t e = 0; e < shape.elements.size(); ++e) {
      const P4::MatchElement& m = matches[i][e];
      const P4::Number value = P4::numberOfBytes(m.value), mask = P4::numberOfBytes(m.mask);
      const uint32_t rest = shape.elements[e].bits - m.prefixLength;
      switch (shape.elements[e].kind) {
        case MatchKind::ternary:
          hit &= (key[e] & mask) == (value & mask);
          break;
        case MatchKind::range:
          hit &= value <= key[e] && key[e] <= mask;
          break;
        case MatchKind::lpm:
          hit &= (key[e] >> rest) == (value >> rest);
          break;
        default:
          hit &= key[e] == value;
      }
    }
    if (!hit) continue;
    const auto better = [&](const P4::Entry& one, const P4::Entry& other) {
      if (shape.kind == MatchKind::lpm) return one.prefixLength > other.prefixLength;
      return one.rank != other.rank ? one.rank < other.rank : one.handle < other.handle;
    };
    if (!best || better(*entries[i], *best)) best = entries[i];
  }
  return best;
}

struct TableCase {
  const char* what;
  std::vector<std::pair<MatchKind, uint32_t>> key;
};

class IndexTest : public testing::TestWithParam<TableCase> {};

TEST_P(IndexTest, FindsWhatPlainSearchFinds) {
  std::mt19937_64 random(7);
  P4::Table table{.name = "t"};
  for (const auto& [kind, bits] : GetParam().key) {
    table.key.push_back({.name = "k", .kind = kind, .bits = bits});
    table.kind = std::max(table.kind, kind);
  }
  const P4::KeyShape shape = keyShapeOf(table);
  // Few values, so that entries and keys often meet.
  const auto number = [&](uint32_t bits) {
    P4::Number value = static_cast<unsigned long>(random() % 6);
    if (random() % 2) value = value << (bits > 3 ? bits - 3 : 0);
    return P4::Number(value & P4::lowMask(bits));
  };
  const auto bytes = [](const P4::Number& value) {
    const std::string text = value.get_str(16);
    return bytesOf(text.size() % 2 ? "0" + text : text);
  };
  P4::TableIndex index(shape);
  std::vector<P4::Entry::Ptr> owned;
  std::vector<P4::Entry*> entries;
  std::vector<std::vector<P4::MatchElement>> matches;
  for (uint32_t step = 0; step < 1500; ++step) {
    std::vector<P4::MatchElement> match;
    for (const auto& [kind, bits] : GetParam().key) {
      P4::MatchElement element{bytes(number(bits))};
      if (kind == MatchKind::ternary)
        element.mask = bytes(random() % 2 ? P4::lowMask(bits) : number(bits));
      if (kind == MatchKind::range) {
        const P4::Number other = number(bits);
        const P4::Number value = P4::numberOfBytes(element.value);
        element = {bytes(std::min(value, other)), bytes(std::max(value, other))};
      }
      if (kind == MatchKind::lpm)
        element.prefixLength = static_cast<uint32_t>(random() % (bits + 1));
      match.push_back(element);
    }
    P4::Entry::Ptr entry = encodeKey(table, shape, match);
    for (size_t e = 0; shape.kind == MatchKind::lpm && e < match.size(); ++e)
      if (table.key[e].kind == MatchKind::lpm) entry->prefixLength = match[e].prefixLength;
    if (shape.parts() > 1) entry->rank = static_cast<uint32_t>(random() % 20);
    entry->handle = step;
    if (index.maybeInsert(entry.get())) {
      entries.push_back(entry.get());
      matches.push_back(match);
      owned.push_back(std::move(entry));
    }
    if (step % 3 == 0) {
      const size_t gone = random() % entries.size();
      if (entries[gone]) index.remove(std::exchange(entries[gone], nullptr));
    }
    std::vector<P4::Number> key;
    std::vector<uint64_t> words(shape.words + 1);
    for (const P4::KeyShape::Element& element : shape.elements) {
      key.push_back(number(element.bits));
      const bool turned = shape.kind == MatchKind::lpm && element.kind == MatchKind::lpm;
      P4::Number value = key.back();
      if (turned) value = value << (element.words * 64 - element.bits);
      for (uint32_t w = 0; w < element.words; ++w)
        words[element.word + w] = P4::wordOf(value, turned ? element.words - 1 - w : w);
    }
    ASSERT_EQ(index.find(words.data()), plainFind(shape, entries, key, matches)) << "step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, IndexTest,
    testing::Values(
        TableCase{"exact", {{MatchKind::exact, 9}, {MatchKind::exact, 128}}},
        TableCase{"lpm32", {{MatchKind::lpm, 32}}}, TableCase{"lpm12", {{MatchKind::lpm, 12}}},
        TableCase{"lpm128", {{MatchKind::exact, 16}, {MatchKind::lpm, 128}}},
        TableCase{"ternary",
                  {{MatchKind::ternary, 48}, {MatchKind::lpm, 32}, {MatchKind::exact, 3}}},
        TableCase{"range",
                  {{MatchKind::range, 16}, {MatchKind::ternary, 8}, {MatchKind::range, 100}}}),
    [](const auto& info) { return std::string(info.param.what); });

// Two tables with the key `h.v`; `first` sends to a port, `second` writes the byte `h.w`.
SmallProgram tableProgram(const std::string& more = "", const std::string& entries = "") {
  SmallProgram program;
  program.header("h", {{"v", 8}, {"w", 8}});
  program.state("start", list({extract("h")}));
  program.ingressAction("", "first");
  const size_t send =
      program.action("send", R"({"name":"port","bitwidth":9})",
                     assign(metadata("egress_spec"), R"({"type":"runtime_data","value":0})"));
  const size_t write =
      program.action("write", R"({"name":"byte","bitwidth":8})",
                     assign(field("h", "w"), R"({"type":"runtime_data","value":0})"));
  const std::string key = R"([{"match_type":"exact","name":"v","target":["h","v"],"mask":null}])";
  program.table(
      R"({"name":"first","id":1,"match_type":"exact","type":"simple","max_size":2,"with_counters":true,"support_timeout":true,"key":)" +
      key + R"(,"action_ids":[)" + std::to_string(send) +
      R"(],"actions":["send"],"next_tables":{"__HIT__":"second","__MISS__":null})" + entries + "}");
  program.table(R"({"name":"second","id":2,"match_type":"exact","max_size":16,"key":)" + key +
                R"(,"action_ids":[)" + std::to_string(write) +
                R"(],"actions":["write"],"next_tables":{"write":null})" +
                (more.empty() ? R"(,"type":"simple")" : more) + "}");
  program.deparse({"h"});
  return program;
}

P4::EntryKey keyed(uint32_t table, char value) {
  return {.table = table, .match = {{std::string(1, value)}}};
}

class StoreTest : public testing::Test {
 protected:
  void SetUp() override {
    first_ = *tableNamed(engine_.program(), "first");
    second_ = *tableNamed(engine_.program(), "second");
    send_ = *actionNamed(engine_.program(), first_, "send");
    write_ = *actionNamed(engine_.program(), second_, "write");
  }
  P4::ActionSpec sendTo(char port) const { return {send_, {std::string(1, port)}}; }
  P4::ActionSpec writes(char byte) const { return {write_, {std::string(1, byte)}}; }
  template <typename Do>
  static P4::RefusalKind refusal(Do act) {
    try {
      act();
    } catch (const P4::Refusal& refused) {
      return refused.kind();
    }
    ADD_FAILURE() << "not refused";
    return P4::RefusalKind::invalid;
  }

  P4::Engine engine_{tableProgram().json()};
  uint32_t first_ = 0, second_ = 0, send_ = 0, write_ = 0;
};

TEST_F(StoreTest, EntriesAreSeenFromTheCommitOn) {
  P4::TableStore& tables = engine_.tables();
  tables.insert(keyed(first_, 7), sendTo(4));
  tables.insert(keyed(second_, 7), writes(0x55));
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("0:0700"));
  tables.commit();
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("4:0755"));
  EXPECT_EQ(tables.find(keyed(first_, 7))->counter.counts(), (P4::Counts{1, 2}));
  tables.modify(keyed(first_, 7), sendTo(5));
  tables.remove(keyed(second_, 7));
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("4:0755"));
  tables.commit();
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("5:0700"));
  EXPECT_EQ(tables.find(keyed(first_, 7))->counter.counts(), (P4::Counts{3, 6}))
      << "a change keeps the count";
  tables.setDefault(second_, writes(0x66));
  tables.commit();
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("5:0766"));
  tables.setDefault(second_, std::nullopt);
  tables.commit();
  EXPECT_THAT(play(engine_, 1, "0700"), ElementsAre("5:0700"));
}

TEST_F(StoreTest, RefusalsChangeNothing) {
  P4::TableStore& tables = engine_.tables();
  tables.insert(keyed(first_, 1), sendTo(1));
  EXPECT_EQ(refusal([&] { tables.insert(keyed(first_, 1), sendTo(2)); }),
            P4::RefusalKind::alreadyExists);
  EXPECT_EQ(refusal([&] { tables.modify(keyed(first_, 2), sendTo(2)); }),
            P4::RefusalKind::notFound);
  EXPECT_EQ(refusal([&] { tables.remove(keyed(first_, 2)); }), P4::RefusalKind::notFound);
  EXPECT_EQ(refusal([&] { tables.insert(keyed(first_, 2), writes(2)); }), P4::RefusalKind::invalid);
  EXPECT_EQ(refusal([&] {
              tables.insert(keyed(first_, 2), P4::ActionSpec{send_, {std::string("\2\0", 2)}});
            }),
            P4::RefusalKind::invalid);
  EXPECT_EQ(refusal([&] { tables.insert({.table = first_, .match = {{"\1\1"}}}, sendTo(2)); }),
            P4::RefusalKind::invalid);
  EXPECT_EQ(refusal([&] { tables.insert(keyed(first_, 2), P4::MemberId{1}); }),
            P4::RefusalKind::invalid);
  tables.insert(keyed(first_, 2), sendTo(2));
  EXPECT_EQ(refusal([&] { tables.insert(keyed(first_, 3), sendTo(2)); }), P4::RefusalKind::full);
  tables.commit();
  EXPECT_THAT(play(engine_, 1, "0100"), ElementsAre("1:0100"));
}

TEST_F(StoreTest, IdleEntriesAreNamedEverySecondSweep) {
  engine_.tables().insert(keyed(first_, 1), sendTo(1), 2000, 99);
  engine_.tables().insert(keyed(first_, 2), sendTo(1));
  engine_.tables().commit();
  play(engine_, 1, "0100", 1000);
  const auto idle = [&](uint64_t now) { return engine_.idleEntries(now).size(); };
  EXPECT_EQ(idle(2999), 0u);
  EXPECT_EQ(idle(3000), 1u);
  EXPECT_EQ(idle(4000), 0u);
  EXPECT_EQ(idle(5000), 1u);
  play(engine_, 1, "0100", 5500);
  EXPECT_EQ(idle(6000), 0u);
}

TEST(ConstantEntryTest, StandFirmAndMayNotRepeat) {
  const std::string entry =
      R"({"match_key":[{"match_type":"exact","key":"0x07"}],"action_entry":{"action_id":1,"action_data":["0x4"]},"priority":1})";
  P4::Engine engine(tableProgram("", R"(,"entries":[)" + entry + "]").json());
  EXPECT_THAT(play(engine, 1, "0700"), ElementsAre("4:0700"));
  EXPECT_THROW(engine.tables().remove(keyed(1, 7)), P4::Refusal);
  EXPECT_THROW(P4::Engine(tableProgram("", R"(,"entries":[)" + entry + "," + entry + "]").json()),
               P4::ProgramError);
}

// The program's priorities are not those by which controllers know its entries.
TEST(ConstantEntryTest, OfTernaryTablesAreFoundByTheirMatch) {
  const auto entry = [](const std::string& mask, int priority) {
    return R"({"match_key":[{"match_type":"ternary","key":"0x07","mask":")" + mask +
           R"("}],"action_entry":{"action_id":1,"action_data":["0x4"]},"priority":)" +
           std::to_string(priority) + "}";
  };
  std::string json =
      tableProgram("", R"(,"entries":[)" + entry("0xff", 5) + "," + entry("0x0f", 9) + "]").json();
  const std::string exact = R"("match_type":"exact")", ternary = R"("match_type":"ternary")";
  for (size_t at = json.find(R"("name":"first")"); at < json.find(R"("name":"second")");) {
    const size_t next = json.find(exact, at);
    if (next > json.find(R"("name":"second")")) break;
    json.replace(at = next, exact.size(), ternary);
  }
  P4::Engine engine(json);
  const uint32_t table = *P4::tableNamed(engine.program(), "first");
  play(engine, 1, "0700");
  P4::Entry* met = engine.tables().find({table, {{"\x07", "\xff"}}, 77});
  ASSERT_NE(met, nullptr);
  EXPECT_EQ(met->counter.counts().packets, 1u);
  P4::Entry* other = engine.tables().find({table, {{"\x07", "\x0f"}}, 3});
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->counter.counts().packets, 0u);
  EXPECT_EQ(engine.tables().find({table, {{"\x08", "\xff"}}, 77}), nullptr);
}

TEST(ProfileTest, GroupsChooseAmongActiveMembersInOrder) {
  P4::Engine engine(
      tableProgram(
          R"(,"type":"indirect_ws","act_prof_name":"prof","selector":{"algo":"identity","input":[{"type":"field","value":["h","w"]}]})")
          .json());
  const uint32_t first = 1, second = 2;
  const uint32_t write = *actionNamed(engine.program(), second, "write");
  P4::TableStore& tables = engine.tables();
  P4::ProfileStore& profile = tables.profile(0);
  for (uint32_t id : {1, 2, 3})
    profile.insertMember(id, {write, {std::string(1, static_cast<char>(0xa0 + id))}});
  EXPECT_THROW(profile.insertGroup(1, {{9}}), P4::Refusal);
  profile.insertGroup(1, {{3, 1, 30}, {1, 2, 10}});
  tables.insert(keyed(first, 7), P4::ActionSpec{1, {"\4"}});
  tables.insert(keyed(second, 7), P4::GroupId{1});
  tables.commit();
  const auto bytes = [&] {
    std::string all;
    for (const char* w : {"00", "01", "02"})
      all += play(engine, 1, std::string("07") + w)[0].substr(4);
    return all;
  };
  EXPECT_EQ(bytes(), "a1a3a1") << "the second copy of member 1 came after member 3";
  tables.portIs(10, false);
  tables.commit();
  EXPECT_EQ(bytes(), "a3a3a3");
  tables.portIs(30, false);
  tables.commit();
  EXPECT_EQ(bytes(), "000102") << "no member is active: no action";
  tables.portIs(10, true);
  profile.modifyMember(1, {write, {"\xb1"}});
  profile.modifyGroup(1, {{1, 1, 10}, {2, 1, {}}});
  tables.commit();
  EXPECT_EQ(bytes(), "b1a2b1");
  EXPECT_THROW(profile.removeGroup(1), P4::Refusal) << "an entry points there";
  tables.modify(keyed(second, 7),
                P4::OneShotSet{{{write, {"\xc1"}}, 1, {}}, {{write, {"\xc2"}}, 2, {}}});
  profile.removeGroup(1);
  profile.removeMember(1);
  tables.commit();
  EXPECT_EQ(bytes(), "c1c2c2");
  tables.remove(keyed(second, 7));
  tables.commit();
  EXPECT_EQ(bytes(), "000102");
}

// A packet sees both of two entries that are written together, or none, whatever the writer does.
TEST_F(StoreTest, APacketThreadSeesWholeCommits) {
  std::atomic<bool> stop = false;
  std::atomic<uint64_t> packets = 0, torn = 0;
  std::thread reader([&] {
    while (!stop) {
      const std::string out = play(engine_, 1, "0700")[0];
      const char byte = bytesOf(out.substr(out.find(':') + 1))[1];
      const uint32_t port = static_cast<uint32_t>(std::stoul(out));
      torn += port != static_cast<uint8_t>(byte);
      ++packets;
    }
  });
  for (int round = 1; packets < 2000 || round < 2000; ++round) {
    const char number = static_cast<char>(round % 100 + 1);
    if (round % 3 == 1) {
      engine_.tables().insert(keyed(first_, 7), sendTo(number));
      engine_.tables().insert(keyed(second_, 7), writes(number));
    } else if (round % 3 == 2) {
      engine_.tables().modify(keyed(second_, 7), writes(number));
      engine_.tables().modify(keyed(first_, 7), sendTo(number));
    } else {
      engine_.tables().remove(keyed(first_, 7));
      engine_.tables().remove(keyed(second_, 7));
    }
    engine_.tables().commit();
  }
  stop = true;
  reader.join();
  EXPECT_EQ(torn, 0u);
}

}  // namespace
}  // namespace P4Test
