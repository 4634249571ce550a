// Rows of one allocation each: head, key and value.
#include "forwarder/RowSet.h"

#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <cstring>
#include <new>

namespace Forwarder {

RowSet::~RowSet() { rowDelAll(); }

RowSet::Probe RowSet::probeOf(std::string_view key) {
  return {key, absl::HashOf(absl::string_view(key.data(), key.size()))};
}

StoredRow* RowSet::allocated(std::string_view key, std::string_view value) {
  auto* row = new (::operator new(sizeof(StoredRow) + key.size() + value.size())) StoredRow;
  row->keySize = static_cast<uint32_t>(key.size());
  row->valueSize = static_cast<uint32_t>(value.size());
  char* bytes = reinterpret_cast<char*>(row + 1);
  key.copy(bytes, key.size());
  value.copy(bytes + key.size(), value.size());
  return row;
}

void RowSet::free(StoredRow* row) { ::operator delete(row); }

StoredRow* RowSet::row(std::string_view key) const {
  const auto slot = slots_.find(probeOf(key));
  return slot == slots_.end() ? nullptr : slot->row;
}

RowSet::Written RowSet::rowIs(std::string_view key, std::string_view value,
                              const std::function<void(const StoredRow&)>& leaving) {
  Written written;
  const Probe probe = probeOf(key);
  const auto slot = slots_.lazy_emplace(probe, [&](const auto& construct) {
    written = {.row = allocated(key, value), .inserted = true};
    construct(Slot{written.row, probe.hash});
  });
  if (written.inserted) return written;
  StoredRow* former = slot->row;
  if (former->valueSize == value.size()) {
    value.copy(reinterpret_cast<char*>(former + 1) + former->keySize, value.size());
    return {.row = former};
  }
  written = {.row = allocated(key, value), .moved = true};
  leaving(*former);
  const_cast<Slot&>(*slot).row = written.row;  // its hash and key are as before
  free(former);
  return written;
}

void RowSet::rowDel(const StoredRow& row) {
  const auto slot = slots_.find(probeOf(row.key()));
  StoredRow* owned = slot->row;
  slots_.erase(slot);
  free(owned);
}

void RowSet::rowDelAll() {
  for (const Slot& slot : slots_) free(slot.row);
  slots_.clear();
}

}  // namespace Forwarder
