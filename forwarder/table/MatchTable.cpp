// Keeps the rows, and tells the structure beside them of each change.
#include "forwarder/table/MatchTable.h"

namespace Forwarder {

StoredRow& MatchTable::rowIs(std::string_view key, std::string_view value) {
  const RowSet::Written written = rows_.rowIs(key, value, leaving_);
  if (written.inserted || written.moved) handleRowAdded(*written.row);
  return *written.row;
}

void MatchTable::rowDel(const StoredRow& row) {
  handleRowLeaving(row);
  rows_.rowDel(row);
}

size_t MatchTable::sweep(const std::function<bool(const StoredRow&)>& gone) {
  return rows_.sweep([&](const StoredRow& row) {
    const bool goes = gone(row);
    if (goes) handleRowLeaving(row);
    return goes;
  });
}

}  // namespace Forwarder
