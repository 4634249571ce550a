// One table as the forwarder programs it: rows by key, and in a structure that finds the row a
// packet matches.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "forwarder/table/MatchLayout.h"
#include "forwarder/table/RowSet.h"

namespace Forwarder {

// Threads: one at a time, look-ups included.
// Lifetime: the table owns its rows; a row and its flow live until the row is deleted, or replaced
// by one of another size.
// Errors: refuses nothing but for want of memory (std::bad_alloc).
// Costs: programming takes one hash look-up and one allocation, and in a ternary table one more
// look-up.
class MatchTable {
 public:
  virtual ~MatchTable() = default;
  MatchTable(const MatchTable&) = delete;
  MatchTable& operator=(const MatchTable&) = delete;

  const MatchLayout& layout() const { return layout_; }
  size_t rowCount() const { return rows_.size(); }
  StoredRow* row(std::string_view key) const { return rows_.row(key); }  // null when absent
  // Have memory fetched for coming calls of row(), the first of them a while before the second.
  void loadSlot(std::string_view key) const { rows_.loadSlot(key); }
  void loadRow(std::string_view key) const { rows_.loadRow(key); }
  // Any row by a number below rowCount(). Numbers change when rows leave.
  StoredRow& rowAt(size_t number) const { return rows_.at(number); }
  RowFlow* flow(const StoredRow& row) const { return rows_.flow(row); }    // null unless counted
  RowPlace place(const StoredRow& row) const { return rows_.place(row); }  // null unless placed
  void placeIs(const StoredRow& row, RowPlace place) { rows_.placeIs(row, place); }
  // Inserts or replaces. `key` has passed MatchLayout::checkKey().
  StoredRow& rowIs(std::string_view key, std::string_view value);
  void rowDel(const StoredRow& row);  // a row of this table
  // Deletes the rows for which `gone` returns true. Returns their number.
  size_t sweep(const std::function<bool(const StoredRow&)>& gone);
  void forEach(const std::function<void(const StoredRow&)>& visit) const { rows_.forEach(visit); }

  // The row that a packet hits, or null; `packet` has layout().packetSize() bytes. Of several, the
  // one with the greatest priority wins, then the longest prefix (of the first prefix column, then
  // the next), then the least key.
  virtual const StoredRow* lookup(std::span<const uint8_t> packet) const = 0;

 protected:
  MatchTable(const MatchLayout& layout, RowExtras extras) : layout_(layout), rows_(extras) {}
  const RowSet& rows() const { return rows_; }

 private:
  // A structure beside the hash table of rows follows their changes here.
  virtual void handleRowAdded(const StoredRow&) {}
  virtual void handleRowLeaving(const StoredRow&) {}

  const MatchLayout layout_;
  RowSet rows_;
  const std::function<void(const StoredRow&)> leaving_ = [this](const StoredRow& row) {
    handleRowLeaving(row);
  };
};

// The structure that fits the layout's kind.
std::unique_ptr<MatchTable> matchTableFactory(const MatchLayout& layout, RowExtras extras = {});

}  // namespace Forwarder
