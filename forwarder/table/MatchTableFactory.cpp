// Which structure holds which kind of table.
#include "forwarder/table/ExactTable.h"
#include "forwarder/table/PrefixTable.h"
#include "forwarder/table/TernaryTable.h"

namespace Forwarder {

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
