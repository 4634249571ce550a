// Rows of the program's tables: entries, default entries, and idle time-outs of entries.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <optional>
#include <string>

#include "forwarder/plane/PlaneTable.h"
#include "forwarder/plane/RowReading.h"

namespace Forwarder {

// Of a table whose entries may be idle, by packed key. It outlives programs.
struct IdleBook {
  uint64_t (*now)() = nullptr;                            // the engine's time
  absl::flat_hash_map<std::string, uint64_t> timeToLive;  // microseconds
  absl::flat_hash_map<std::string, uint64_t> handles;
};

class EntryTable final : public PlaneTable {
 public:
  // `idle` is null for a table whose entries have no time-outs. Engine, type and idle book outlive
  // this.
  EntryTable(P4::Engine& engine, uint32_t position, const Lattice::TableType& type,
             const ProgramNames& names, IdleBook* idle);

  void write(const PlaneRow& row) override { writePlaced(row); }
  void erase(std::string_view key) override { erasePlaced(key, nullptr); }
  RowPlace writePlaced(const PlaneRow& row) override;  // the engine's entry
  void erasePlaced(std::string_view key, RowPlace place) override;
  void handleIs(std::string_view key, RowPlace place, uint64_t entryHandle) override;
  void countsAre(std::string_view key, const RowFlow& flow) override;
  bool eachCount(size_t most, const CountsOf& each) override;
  void retellCounts() override { isRetelling_ = true; }
  void timeToLiveIs(std::string_view key, uint64_t microseconds);
  // Whether the program notes when packets meet the entries.
  bool isAgeing() const { return idle_ != nullptr && table().ageing; }
  // When a packet last met the entry, or it came, in microseconds of the engine's time; nothing: it
  // is not known. Of a table whose entries have time-outs.
  std::optional<uint64_t> lastHit(uint64_t entryHandle) const;

 private:
  const P4::Table& table() const { return engine_.program().tables[position_]; }
  void readTarget();
  P4::Entry* put(const PlaneRow& row);
  void handleIdleRow(std::string_view key, uint64_t entryHandle, P4::Entry* entry);
  void forgetHandle(uint64_t handle, const P4::Entry* entry);
  void doRemove(std::string_view key, P4::Entry* entry);
  void maybeSetMeter(P4::Entry& entry, const PlaneRow& row);

  P4::Engine& engine_;
  const uint32_t position_;
  const Lattice::TableType& type_;
  const ActionPositions actions_;
  KeyReader keys_;
  IdleBook* const idle_;
  absl::flat_hash_map<uint64_t, P4::Entry*> byHandle_;  // of a table whose entries have time-outs
  RowValue value_;                                      // of the row being written
  P4::Target target_;                                   // of that row
  size_t nextCount_ = 0;
  bool isRetelling_ = false;
};

// At most one row.
class DefaultTable final : public PlaneTable {
 public:
  DefaultTable(P4::Engine& engine, uint32_t position, const Lattice::TableType& type,
               const ProgramNames& names);
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;

 private:
  P4::Engine& engine_;
  const uint32_t position_;
  const Lattice::TableType& type_;
  const ActionPositions actions_;
};

class IdleTable final : public PlaneTable {
 public:
  // `entries` points to null until there is a table of the entries' rows.
  IdleTable(const Lattice::TableType& type, IdleBook& book, EntryTable* const* entries)
      : type_(type), book_(book), entries_(entries) {}
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;

 private:
  const Lattice::TableType& type_;
  IdleBook& book_;
  EntryTable* const* const entries_;
};

}  // namespace Forwarder
