// Random writes with commits, undoing and all else a writer does, and a plain model beside them;
// and a follower with a copy of its own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "platform/brine/Reader.h"
#include "platform/brine/Store.h"

namespace Brine {

struct Row {
  std::string value;
  uint64_t sequence = 0;
  friend bool operator==(const Row&, const Row&) = default;
  friend void PrintTo(const Row& row, std::ostream* out) {
    *out << row.sequence << ": " << row.value.size() << " x " << row.value.substr(0, 1);
  }
};
using Rows = std::map<std::string, Row>;
using Model = std::map<std::string, Rows>;  // by table

inline Rows rowsOf(Store& store, const std::string& table) {
  Rows rows;
  EXPECT_EQ(store.forEachRecord(store.table(table),
                                [&](const Record& record) {
                                  const Row row{std::string(asText(record.value)), record.sequence};
                                  return rows.emplace(asText(record.key), row).second;
                                }),
            0u);
  return rows;
}

class Workload {
 public:
  explicit Workload(const StoreOptions& options, unsigned seed = 1)
      : options_(options), random_(seed) {
    reopen();
  }

  Store& store() { return *store_; }
  int openings() const { return openings_; }  // each drops the changes that are not committed
  const Model& committed() const { return kept_; }
  uint64_t committedSequence() const { return keptSequence_; }
  // As committed(), if the step that is being made commits.
  const Model& committedNext() const { return next_; }
  std::pair<uint64_t, uint64_t> settled() const { return {settled_, nextSettled_}; }
  uint64_t nextSequence() const { return store_ ? store_->nextSequence() : nextSequence_; }
  // The tables as of that settling, but for those that were deleted since.
  const Model& settledAt(uint64_t sequence) const {
    return sequence == settled_ ? settledModel_ : nextSettledModel_;
  }

  void step() {
    if (pick(4) == 0) store_->showAhead();
    change();
    for (const auto& [name, rows] : seen_) {
      const TableNumber number = store_->table(name);
      ASSERT_EQ(store_->count(number), rows.size()) << name;
      const std::string at = key();
      const auto value = store_->get(number, asBytes(at));
      ASSERT_EQ(value.has_value(), rows.contains(at)) << name << " " << at;
      ASSERT_TRUE(!value || asText(*value) == rows.at(at).value) << name << " " << at;
    }
  }

 private:
  void change() {
    const unsigned what = pick(1000);
    if (what < 450) return write(size());
    if (what < 650) return erase(what < 600);
    if (what < 655) return eraseAll();
    if (what < 780) return undo();
    if (what < 920) return commit();
    if (what < 955) return discard();
    if (what < 970) return deleteTable();
    if (what < 975) return reopen();
    if (what < 980) return burst();
    if (what < 985) store_->typesChanged();
  }
  void commit() {
    next_ = seen_;
    store_->commit();
    keep();
    if (pick(2) == 0) settle();
    if (pick(2) == 0) store_->trim(store_->nextSequence() - pick(10), pick(3) * 10);
  }
  unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }
  std::string table() { return std::string(1, static_cast<char>('a' + pick(3))); }
  std::string key() {
    const unsigned number = pick(10);
    return number == 0 ? std::string(2048, 'k') : "key" + std::to_string(number);
  }
  size_t size() {
    const unsigned kind = pick(100);
    return kind == 0 ? 140000 : kind < 5 ? 3000 + pick(3000) : pick(90);
  }

  void write(size_t size) {
    const std::string name = table(), at = key();
    const std::string value(size, static_cast<char>('a' + pick(26)));
    const WriteOptions options{.attachmentSize = pick(20), .owner = pick(3)};
    const auto written = store_->write(store_->table(name), asBytes(at), value.size(), options);
    std::ranges::copy(value, written.value.begin());
    seen_[name][at] = {value, written.sequence};
  }
  void erase(bool silently) {
    const std::string name = table(), at = key();
    const TableNumber number = store_->table(name);
    silently ? void(store_->erase(number, asBytes(at)))
             : void(store_->eraseFor(number, asBytes(at), pick(3)));
    seen_[name].erase(at);
  }
  void eraseAll() {
    const std::string name = table();
    store_->eraseAll(store_->table(name));
    seen_[name].clear();
  }
  void undo() {
    const uint64_t sequence = store_->nextSequence() - 1 - pick(12);
    const auto change = store_->change(sequence);
    const std::string name = change ? nameOf(change->table) : "";
    if (name.empty() || (!change->before && !change->now)) return;
    const std::string at(asText((change->before ? change->before : change->now)->key));
    Rows& rows = seen_.at(name);
    if (change->before) {
      const std::string value(asText(change->before->value));
      store_->undo(sequence);
      const auto record = store_->record(change->table, asBytes(at));
      ASSERT_TRUE(record && asText(record->value) == value);
      rows[at] = {value, record->sequence};
    } else {
      store_->undo(sequence);
      ASSERT_FALSE(store_->record(change->table, asBytes(at)));
      rows.erase(at);
    }
  }
  std::string nameOf(TableNumber number) {  // empty: the list of tables
    for (const std::string& name : store_->tableNames()) {
      if (store_->table(name) == number) return name;
    }
    return "";
  }
  void discard() {
    seen_ = next_ = withTables(kept_);
    store_->discard();
    keep();
  }
  // Tables outlast a transaction that is discarded.
  Model withTables(Model model) {
    for (const std::string& name : store_->tableNames()) model.try_emplace(name);
    return model;
  }
  void deleteTable() {
    const std::string name = table();
    if (!store_->hasTable(name)) return;
    seen_.erase(name);
    settledModel_.erase(name);
    nextSettledModel_.erase(name);
    next_ = seen_;
    store_->tableDel(name);
    keep();
  }
  void settle() {
    nextSettled_ = store_->committedSequence();
    nextSettledModel_ = kept_;
    store_->settle();
    settled_ = nextSettled_;
    settledModel_ = nextSettledModel_;
  }
  void burst() {
    for (int i = 0; i < 70; ++i) write(pick(30));
  }
  void keep() {
    keptSequence_ = store_->committedSequence();
    kept_ = next_ = seen_;
  }
  void reopen() {
    nextSequence_ = nextSequence();
    store_.reset();
    seen_ = next_ = kept_;
    store_ = Store::open(options_);
    ++openings_;
    keep();
  }

  const StoreOptions options_;
  std::mt19937 random_;
  std::unique_ptr<Store> store_;
  Model seen_, kept_, next_, settledModel_, nextSettledModel_;
  uint64_t nextSequence_ = 0;  // of the writer before, while there is none
  uint64_t keptSequence_ = 0, settled_ = 0, nextSettled_ = 0;
  int openings_ = 0;
};

// Copyable, so that one can go on from the same place in several ways.
struct Follower {
  uint64_t sequence = 0;
  std::map<TableNumber, std::map<std::string, std::string>> tables;
  size_t changes = 0, snapshots = 0;

  void catchUp(Reader& reader) {
    if (const auto reached =
            reader.followEach(sequence, UINT64_MAX, [&](auto& one) { apply(one); })) {
      sequence = *reached;
    } else {
      copy(reader);
    }
  }
  // False when a change cannot be seen whole before its commit.
  bool readAhead(Reader& reader, uint64_t to) {
    const auto reached =
        reader.followAhead(sequence, to, [&](std::span<const FollowedChange> visited) {
          for (const FollowedChange& one : visited) apply(one);
        });
    sequence = reached.value_or(sequence);
    return reached.has_value();
  }
  void expectContents(Reader& reader, const Model& model) {
    for (const auto& [name, rows] : model) {
      std::map<std::string, std::string> expected;
      for (const auto& [key, row] : rows) expected[key] = row.value;
      ASSERT_EQ(tables[reader.tableNumber(name)], expected) << "table " << name;
    }
  }

 private:
  void apply(const FollowedChange& change) {
    ASSERT_GT(change.sequence, sequence);
    sequence = change.sequence;
    ++changes;
    const std::string key(asText(change.key));
    if (change.deleted) {
      tables[change.table].erase(key);
    } else {
      tables[change.table][key] = asText(change.value);
    }
  }
  void copy(Reader& reader) {
    ++snapshots;
    const auto snapshot = reader.snapshot();
    EXPECT_TRUE(snapshot->damagedRecords().empty());
    tables.clear();
    for (const std::string& name : snapshot->tableNames()) {
      auto& rows = tables[reader.tableNumber(name)];
      snapshot->forEach(name, [&](Bytes key, Bytes value) {
        return rows.emplace(asText(key), asText(value)).second;
      });
    }
    sequence = snapshot->sequence();
  }
};

}  // namespace Brine
