// Snapshots of a store, for this process and others.
#include <cstring>

#include "platform/brine/Failure.h"
#include "platform/brine/Records.h"
#include "platform/brine/SharedEnvironment.h"
#include "platform/brine/Store.h"
#include "platform/brine/StoreHead.h"

namespace Brine {
namespace {

class SnapshotImpl final : public Snapshot {
 public:
  // The transaction decides which tables there are.
  SnapshotImpl(Environment& environment, ReadTransaction& read,
               const std::map<std::string, MDB_dbi, std::less<>>& tables)
      : environment_(environment), read_(read), tables_(tables) {}
  ~SnapshotImpl() override { read_.setAside(); }

  std::vector<std::string> tableNames() const override {
    std::vector<std::string> names;
    for (const auto& [name, dbi] : tables_) names.push_back(name);
    return names;
  }
  bool hasTable(std::string_view name) const override { return tables_.contains(name); }

  std::optional<Bytes> get(std::string_view table, Bytes key) override {
    const auto found = tables_.find(table);
    if (found == tables_.end() || key.empty() || key.size() > keyLimit) return std::nullopt;
    Bytes value;
    const int error = findRecord(read_.begin(), found->second, key, &value);
    if (error == damagedRecord) {
      noteDamage(table, key);
      return std::nullopt;
    }
    if (error == MDB_NOTFOUND || error == MDB_BAD_DBI) return std::nullopt;
    check(error, environment_.directory());
    return value;
  }

  size_t forEach(std::string_view table, const Store::Visit& visit, Bytes from) override {
    const auto found = tables_.find(table);
    if (found == tables_.end()) return 0;
    size_t passedOver = 0;
    const int error = visitRecords(read_.begin(), found->second, visit, from, [&](Bytes key) {
      noteDamage(table, key);
      ++passedOver;
    });
    if (error == MDB_NOTFOUND || error == MDB_BAD_DBI) return 0;
    check(error, environment_.directory());
    return passedOver;
  }

  size_t count(std::string_view table) override {
    const auto found = tables_.find(table);
    MDB_stat stat{};
    if (found == tables_.end() || mdb_stat(read_.begin(), found->second, &stat) != 0) return 0;
    return stat.ms_entries;
  }

  const std::set<DamagedRecord>& damagedRecords() const override { return damaged_; }

 private:
  void noteDamage(std::string_view table, Bytes key) {
    damaged_.insert({std::string(table), std::string(asText(key))});
  }

  Environment& environment_;
  ReadTransaction& read_;
  const std::map<std::string, MDB_dbi, std::less<>>& tables_;
  std::set<DamagedRecord> damaged_;
};

class ReaderImpl final : public Reader {
 public:
  explicit ReaderImpl(std::shared_ptr<Environment> environment)
      : environment_(std::move(environment)), read_(*environment_) {}

  std::unique_ptr<Snapshot> snapshot() override {
    read_.setAside();
    // A handle serves only transactions begun after it was opened; so when tables came in between,
    // look again.
    while (!listed(read_.begin())) {
      read_.setAside();
      openHandles();
    }
    return std::make_unique<SnapshotImpl>(*environment_, read_, tables_);
  }

 private:
  // Brings tables_ to the transaction's; false when one of them has no handle yet. Mostly
  // nothing has changed, and nothing is allocated.
  bool listed(MDB_txn* txn) {
    const std::lock_guard guard(environment_->handlesMutex);
    std::map<std::string, MDB_dbi, std::less<>> tables;
    auto known = tables_.begin();
    bool same = true, complete = true;
    const auto visit = [&](std::string_view name) {
      if (name == metaTable) return true;
      const auto handle = environment_->handles.find(name);
      complete = handle != environment_->handles.end();
      if (!complete) return false;
      same = same && known != tables_.end() && *known == *handle;
      if (same) {
        ++known;
      } else {
        if (tables.empty()) tables.insert(tables_.begin(), known);
        tables.emplace(*handle);
      }
      return true;
    };
    check(visitNames(txn, visit), environment_->directory());
    if (!complete) return false;
    if (same && known != tables_.end()) tables_.erase(known, tables_.end());
    if (!same) tables_ = std::move(tables);
    return true;
  }

  void openHandles() {
    const std::lock_guard guard(environment_->handlesMutex);
    Transaction txn(*environment_, MDB_RDONLY);
    std::vector<std::string> names;
    const auto add = [&](std::string_view name) { return names.emplace_back(name), true; };
    check(visitNames(txn.handle(), add), environment_->directory());
    for (const std::string& name : names) {
      if (name == metaTable || environment_->handles.contains(name)) continue;
      MDB_dbi dbi = 0;
      check(mdb_dbi_open(txn.handle(), name.c_str(), 0, &dbi), environment_->directory());
      environment_->handles[name] = dbi;
    }
    txn.commit();
  }

  std::shared_ptr<Environment> environment_;
  ReadTransaction read_;
  std::map<std::string, MDB_dbi, std::less<>> tables_;
};

}  // namespace

std::unique_ptr<Reader> Reader::open(const std::string& directory) {
  const StoreOptions options{.directory = directory};
  return std::make_unique<ReaderImpl>(sharedEnvironment(options, Purpose::read));
}

}  // namespace Brine
