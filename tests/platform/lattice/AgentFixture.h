// An agent's side in this process: a reactor on a thread of its own, a store and a database; and
// handlers that follow it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/lattice/Subscriber.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"
#include "tests/support/TempDir.h"

namespace TestSupport {

using namespace std::chrono_literals;

inline constexpr const char* routeType = R"(
  key vrf_id : U16;
  key dst : U32;
  action { set_nexthop 7 { nexthop_id : U32; } drop 8 { none : Void; } }
)";

// The database, running. What it hears from subscribers is kept for the test.
class Agent {
 public:
  explicit Agent(const std::string& directory, size_t journalBound = 100000)
      : Agent(directory, Brine::Store::open({.directory = directory}), journalBound) {}
  Agent(const std::string& directory, std::unique_ptr<Brine::Store> of,
        size_t journalBound = 100000)
      : store(std::move(of)) {
    const Vela::ActivityLock lock;
    database = Lattice::Database::create(loop, *store,
                                         {.doorbellPath = directory + "/doorbell.sock",
                                          .journalChangesWithoutSubscriber = journalBound});
    programmed = store->committedSequence();
    database->observerIs({.reports =
                              [this](std::span<const Lattice::Report> reports) {
                                for (const auto& report : reports) hear(report);
                              },
                          .programmed = [this](uint64_t sequence) { hearAllUpTo(sequence); },
                          .inStep = [this](uint64_t sequence) { inStep = sequence; },
                          .notice =
                              [this](const Lattice::Notice& notice) {
                                notices.push_back(notice);
                                notices.back().message = texts.emplace_back(notice.message);
                              }});
    thread = std::thread([this] { loop.run(); });
  }
  ~Agent() {
    loop.stop();
    thread.join();
    const Vela::ActivityLock lock;
    tables.clear();
    database.reset();
    store.reset();
  }

  Lattice::ArTableInterface& table(const std::string& name, const char* definition = routeType,
                                   bool persistent = true) {
    const Vela::ActivityLock lock;
    Lattice::TheTypeRegistry().typeIs(Lattice::TableType::compile(name + "Type", definition));
    auto& slot = tables[name];
    slot = Vela::make<Lattice::ArTableInterface>(name, name + "Type", nullptr);
    database->bindInterface(slot, name, persistent);
    return *slot;
  }

  void hear(const Lattice::Report& report) {
    heard.push_back(report);
    texts.emplace_back(report.message);
  }
  // Counts like a report on each change, but for those that were settled by one.
  void hearAllUpTo(uint64_t sequence) {
    std::map<uint64_t, uint64_t> owners;  // of changes, by sequence number
    for (uint64_t next = programmed + 1; next <= sequence; ++next) {
      if (const auto change = store->change(next)) owners[next] = change->owner;
    }
    for (const auto& [name, table] : tables) {  // a change outside a batch is settled at once
      table->forEachCommitted(
          [&](const Lattice::StoredRow& row) { return owners[row.sequence] = row.entryHandle; });
    }
    for (const auto& report : heard) {
      if (report.settles) owners.erase(report.sequence);
    }
    for (const auto& [at, owner] : owners) {
      if (at > programmed && at <= sequence) hear({.entryHandle = owner, .sequence = at});
    }
    programmed = sequence;
  }

  // Follows until `done` holds, or so long that it never will.
  static bool followUntil(const std::vector<Lattice::Subscriber*>& subscribers,
                          const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < end) {
      {
        const Vela::ActivityLock lock;
        if (done()) return true;
      }
      for (auto* subscriber : subscribers) subscriber->follow(subscribers.size() > 1 ? 1ms : 5ms);
    }
    return false;
  }

  std::unique_ptr<Brine::Store> store;
  Vela::ReactorLoop loop;
  std::unique_ptr<Lattice::Database> database;
  std::map<std::string, Vela::Ptr<Lattice::ArTableInterface>> tables;
  std::vector<Lattice::Report> heard;
  std::deque<std::string> texts;
  std::vector<Lattice::Notice> notices;
  uint64_t programmed = 0;
  uint64_t inStep = 0;
  std::thread thread;
};

inline Lattice::Row route(uint32_t dst, uint32_t nexthop) {
  Lattice::Row row;
  row.key = std::string("\0\1", 2);
  for (int shift = 24; shift >= 0; shift -= 8) row.key.push_back(static_cast<char>(dst >> shift));
  row.value = std::string("\7\0\0\0", 4);
  for (int shift = 0; shift < 32; shift += 8)
    row.value.push_back(static_cast<char>(nexthop >> shift));
  return row;
}

// Keeps the rows like a forwarding agent; reports at once unless told to hold back.
class Follower final : public Lattice::SubscriberHandler {
 public:
  explicit Follower(const std::string& directory, const std::string& name = "test")
      : subscriber(Lattice::Subscriber::create(directory, name, *this)) {}

  void tableAdded(const Lattice::FollowedTable& table) override { rows[table.name].clear(); }
  void tableRemoved(const Lattice::FollowedTable& table) override {
    rows.erase(table.name);
    ++removed;
  }
  void tableRetyped(const Lattice::FollowedTable& table) override {
    retyped.push_back(table.type->definition());
  }
  void snapshotBegin() override {
    ++snapshots;
    for (auto& [name, of] : rows) of.clear();
  }
  void snapshotEnd() override {}
  void rowChanged(const Lattice::RowChange& change) override {
    ++changes;
    unchanged += change.unchanged;
    program(change);
    held.push_back({change.entryHandle, change.sequence});
    if (!holdBack) reportAll(change.entryHandle == failing ? 1 : 0, failure);
    if (onRow) onRow(change);
  }
  void program(const Lattice::RowChange& change) {
    auto& of = rows[change.table->name];
    if (change.deleted) {
      of.erase(std::string(change.key));
    } else {
      of[std::string(change.key)] = change.value;
    }
  }
  void aheadLost(const Lattice::WholeCommit& lost) override {
    ++losses;
    EXPECT_TRUE(lost.visitFormer([this](const Lattice::RowChange& former) { program(former); }));
  }
  void rowsEnd() override { ++ends; }
  void wholeCommit(const Lattice::WholeCommit& commit) override {
    if (onWhole) onWhole(commit);
  }
  void reportAll(uint16_t code = 0, const std::string& text = {}) {
    for (const auto& [handle, sequence] : held) subscriber->report(handle, sequence, code, text);
    held.clear();
  }
  Lattice::Answer answer(const Lattice::Question& question) override {
    questions.push_back(question);
    return answers;
  }

  std::function<void(const Lattice::WholeCommit&)> onWhole;
  std::function<void(const Lattice::RowChange&)> onRow;
  uint64_t failing = 0;              // the handle of an entry that cannot be programmed
  std::string failure;               // why
  std::vector<std::string> retyped;  // definitions
  std::vector<Lattice::Question> questions;
  Lattice::Answer answers;
  std::map<std::string, std::map<std::string, std::string>> rows;
  std::vector<std::pair<uint64_t, uint64_t>> held;
  bool holdBack = false;
  size_t changes = 0, unchanged = 0, snapshots = 0, removed = 0, losses = 0, ends = 0;
  std::unique_ptr<Lattice::Subscriber> subscriber;
};

// An agent with a table of routes, and a follower.
struct FollowedAgentTest : testing::Test {
  TempDir directory;
  std::unique_ptr<Agent> agent = std::make_unique<Agent>(directory.path());
  Lattice::ArTableInterface* routes = &agent->table("routes");
  std::unique_ptr<Follower> follower = std::make_unique<Follower>(directory.path());

  bool followUntil(const std::function<bool()>& done) {
    return Agent::followUntil({follower->subscriber.get()}, done);
  }
  bool inStep() {
    return followUntil([&] { return agent->inStep == agent->database->lastSequence(); });
  }
};

}  // namespace TestSupport
