// Rows of one allocation each: head, key and value.
#include "forwarder/table/RowSet.h"

#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <cstring>
#include <new>

namespace Forwarder {

RowSet::~RowSet() { rowDelAll(); }

RowSet::Probe RowSet::probeOf(std::string_view key) {
  return {key, absl::HashOf(absl::string_view(key.data(), key.size()))};
}

StoredRow* RowSet::allocateRow(std::string_view key, std::string_view value) {
  auto* memory =
      static_cast<char*>(memory_.take(extrasSize_ + sizeof(StoredRow) + key.size() + value.size()));
  auto* row = new (memory + extrasSize_) StoredRow;
  if (RowFlow* counts = flow(*row)) new (counts) RowFlow;
  placeIs(*row, nullptr);
  row->keySize = static_cast<uint32_t>(key.size());
  row->valueSize = static_cast<uint32_t>(value.size());
  char* bytes = reinterpret_cast<char*>(row + 1);
  key.copy(bytes, key.size());
  value.copy(bytes + key.size(), value.size());
  return row;
}

void RowSet::freeRow(StoredRow* row) {
  memory_.give(begin(*row), extrasSize_ + sizeof(StoredRow) + row->keySize + row->valueSize);
}

void RowSet::numberDel(const StoredRow& row) {
  StoredRow* last = rows_.back();
  last->number = row.number;
  rows_[row.number] = last;
  rows_.pop_back();
}

StoredRow* RowSet::row(std::string_view key) const {
  const auto slot = slots_.find(probeOf(key));
  return slot == slots_.end() ? nullptr : slot->row;
}

void RowSet::loadRow(std::string_view key) const {
  const auto slot = slots_.find(HashProbe{probeOf(key).hash});
  if (slot != slots_.end()) __builtin_prefetch(slot->row);
}

RowSet::Written RowSet::rowIs(std::string_view key, std::string_view value,
                              const std::function<void(const StoredRow&)>& leaving) {
  Written written;
  const Probe probe = probeOf(key);
  const auto slot = slots_.lazy_emplace(probe, [&](const auto& construct) {
    written = {.row = allocateRow(key, value), .inserted = true};
    construct(Slot{written.row, probe.hash});
  });
  if (written.inserted) {
    written.row->number = static_cast<uint32_t>(rows_.size());
    rows_.push_back(written.row);
    return written;
  }
  StoredRow* former = slot->row;
  if (former->valueSize == value.size()) {
    value.copy(reinterpret_cast<char*>(former + 1) + former->keySize, value.size());
    return {.row = former};
  }
  written = {.row = allocateRow(key, value), .moved = true};
  written.row->number = former->number;
  std::memcpy(begin(*written.row), begin(*former), extrasSize_);
  rows_[former->number] = written.row;
  leaving(*former);
  const_cast<Slot&>(*slot).row = written.row;  // its hash and key are as before
  freeRow(former);
  return written;
}

void RowSet::rowDel(const StoredRow& row) {
  const auto slot = slots_.find(probeOf(row.key()));
  StoredRow* owned = slot->row;
  slots_.erase(slot);
  numberDel(*owned);
  freeRow(owned);
}

void RowSet::rowDelAll() {
  slots_.clear();
  for (StoredRow* row : rows_) freeRow(row);
  rows_.clear();
}

}  // namespace Forwarder
