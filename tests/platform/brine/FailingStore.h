// A store whose writes or commits fail when a test says so.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/Store.h"

namespace TestSupport {

// Passes everything on, but refuses on request as a full state directory does.
class FailingStore final : public Brine::Store {
  using Bytes = Brine::Bytes;
  using Record = Brine::Record;
  using TableNumber = Brine::TableNumber;

 public:
  explicit FailingStore(const std::string& directory)
      : store_(Brine::Store::open({.directory = directory})) {}
  bool failing = false;          // commits fail
  bool writesFailing = false;    // so that a commit fails in the midst of its derived rows
  size_t writesLeft = SIZE_MAX;  // until the room is used up

  TableNumber table(std::string_view name) override { return store_->table(name); }
  bool hasTable(std::string_view name) const override { return store_->hasTable(name); }
  std::vector<std::string> tableNames() const override { return store_->tableNames(); }
  void tableDel(std::string_view name) override { store_->tableDel(name); }
  std::optional<Bytes> get(TableNumber table, Bytes key) const override {
    return store_->get(table, key);
  }
  std::optional<Record> record(TableNumber table, Bytes key) const override {
    return store_->record(table, key);
  }
  bool contains(TableNumber table, Bytes key) const override {
    return store_->contains(table, key);
  }
  uint32_t keyHash(Bytes key) const override { return store_->keyHash(key); }
  std::optional<Record> recordOf(TableNumber table, uint32_t hash, uint64_t owner) const override {
    return store_->recordOf(table, hash, owner);
  }
  void load(TableNumber table, std::span<const uint32_t> hashes) const override {
    store_->load(table, hashes);
  }
  Written write(TableNumber table, Bytes key, size_t size,
                const Brine::WriteOptions& options) override {
    if (writesFailing || writesLeft == 0) refuse();
    --writesLeft;
    return store_->write(table, key, size, options);
  }
  bool erase(TableNumber table, Bytes key) override { return store_->erase(table, key); }
  uint64_t eraseFor(TableNumber table, Bytes key, uint64_t owner) override {
    return store_->eraseFor(table, key, owner);
  }
  void eraseAll(TableNumber table) override { store_->eraseAll(table); }
  size_t count(TableNumber table) const override { return store_->count(table); }
  using Brine::Store::forEachRecord;
  size_t forEachRecord(TableNumber table, const RecordVisit& visit, Position* position) override {
    return store_->forEachRecord(table, visit, position);
  }
  std::vector<Brine::DamagedRecord> takeDamagedRecords() override {
    return store_->takeDamagedRecords();
  }
  void eraseDamaged(std::span<const Brine::DamagedRecord> records) override {
    store_->eraseDamaged(records);
  }
  bool dirty() const override { return store_->dirty(); }
  uint64_t showAhead() override { return store_->showAhead(); }
  void commit() override {
    if (failing) refuse();
    store_->commit();
  }
  void discard() override { store_->discard(); }
  uint64_t committedSequence() const override { return store_->committedSequence(); }
  uint64_t nextSequence() const override { return store_->nextSequence(); }
  uint64_t settledSequence() const override { return store_->settledSequence(); }
  size_t mostUndoneLater() const override { return store_->mostUndoneLater(); }
  std::optional<Brine::Change> change(uint64_t sequence) const override {
    return store_->change(sequence);
  }
  uint64_t undo(uint64_t sequence) override { return store_->undo(sequence); }
  void settle() override { store_->settle(); }
  bool isUnsettled(const Record& record) const override { return store_->isUnsettled(record); }
  void trim(uint64_t sequence, size_t atMost) override { store_->trim(sequence, atMost); }
  uint64_t trimmedUpTo() const override { return store_->trimmedUpTo(); }
  uint64_t typesVersion() const override { return store_->typesVersion(); }
  void typesChanged() override { store_->typesChanged(); }
  std::string_view identity() const override { return store_->identity(); }
  size_t bytesUsed() const override { return store_->bytesUsed(); }

 private:
  [[noreturn]] static void refuse() {
    throw Brine::StoreError(Brine::Trouble::full, "the state directory is full");
  }
  std::unique_ptr<Brine::Store> store_;
};

}  // namespace TestSupport
