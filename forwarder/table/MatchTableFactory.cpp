// Which structure holds which kind of table.
#include "forwarder/table/MatchTable.h"
#include "forwarder/table/PrefixTable.h"
#include "forwarder/table/TernaryTable.h"

namespace Forwarder {
namespace {

// Without masks and prefixes a packet's fields are the key: the hash table of rows is enough.
class ExactTable final : public MatchTable {
 public:
  ExactTable(const MatchLayout& layout, RowExtras extras) : MatchTable(layout, extras) {}
  const StoredRow* lookup(std::span<const uint8_t> packet) const override {
    return row({reinterpret_cast<const char*>(packet.data()), packet.size()});
  }
};

}  // namespace

std::unique_ptr<MatchTable> matchTableFactory(const MatchLayout& layout, RowExtras extras) {
  switch (layout.kind()) {
    case MatchKind::longestPrefix:
      return std::make_unique<PrefixTable>(layout, extras);
    case MatchKind::ternary:
      return std::make_unique<TernaryTable>(layout, extras);
    case MatchKind::exact:
      break;
  }
  return std::make_unique<ExactTable>(layout, extras);
}

}  // namespace Forwarder
