// A store whose commits fail when a test says so.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/Store.h"

namespace TestSupport {

// Passes everything on, but fails commits on request as a full state directory does.
class FailingStore final : public Brine::Store {
 public:
  explicit FailingStore(const std::string& directory)
      : store_(Brine::Store::open({.directory = directory})) {}
  bool failing = false;

  Brine::TableNumber table(std::string_view name) override { return store_->table(name); }
  bool hasTable(std::string_view name) const override { return store_->hasTable(name); }
  std::vector<std::string> tableNames() const override { return store_->tableNames(); }
  void tableDel(std::string_view name) override { store_->tableDel(name); }
  std::optional<Brine::Bytes> get(Brine::TableNumber table, Brine::Bytes key) override {
    return store_->get(table, key);
  }
  std::span<uint8_t> reserve(Brine::TableNumber table, Brine::Bytes key, size_t size) override {
    return store_->reserve(table, key, size);
  }
  bool erase(Brine::TableNumber table, Brine::Bytes key) override {
    return store_->erase(table, key);
  }
  void eraseAll(Brine::TableNumber table) override { store_->eraseAll(table); }
  size_t count(Brine::TableNumber table) const override { return store_->count(table); }
  size_t forEach(Brine::TableNumber table, const Visit& visit, Brine::Bytes from) override {
    return store_->forEach(table, visit, from);
  }
  std::vector<Brine::DamagedRecord> takeDamagedRecords() override {
    return store_->takeDamagedRecords();
  }
  void eraseDamaged(std::span<const Brine::DamagedRecord> records) override {
    store_->eraseDamaged(records);
  }
  void handleReaderGone() override { store_->handleReaderGone(); }
  bool dirty() const override { return store_->dirty(); }
  using Brine::Store::commit;
  void commit(Filling filling) override {
    if (!failing) return store_->commit(filling);
    store_->discard();
    throw Brine::StoreError(Brine::Trouble::full, "the state directory is full");
  }
  void discard() override { store_->discard(); }
  size_t bytesUsed() const override { return store_->bytesUsed(); }

 private:
  std::unique_ptr<Brine::Store> store_;
};

}  // namespace TestSupport
