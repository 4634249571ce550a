// What all structures share, and the simplest of them.
#include "forwarder/MatchTable.h"

#include "forwarder/PrefixTable.h"
#include "forwarder/TernaryTable.h"

namespace Forwarder {
namespace {

// Without masks and prefixes a packet's fields are the key.
class ExactTable final : public MatchTable {
 public:
  ExactTable(const MatchLayout& layout, bool counted) : MatchTable(layout, counted) {}
  const StoredRow* lookup(std::span<const uint8_t> packet) const override {
    return row({reinterpret_cast<const char*>(packet.data()), packet.size()});
  }
};

}  // namespace

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

std::unique_ptr<MatchTable> matchTableFactory(const MatchLayout& layout, bool counted) {
  switch (layout.kind()) {
    case MatchKind::longestPrefix:
      return std::make_unique<PrefixTable>(layout, counted);
    case MatchKind::ternary:
      return std::make_unique<TernaryTable>(layout, counted);
    case MatchKind::exact:
      break;
  }
  return std::make_unique<ExactTable>(layout, counted);
}

}  // namespace Forwarder
