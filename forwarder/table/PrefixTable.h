// Longest prefix match: exact fields and one IP prefix.
#pragma once

#include <array>

#include "forwarder/table/MatchTable.h"

namespace Forwarder {

// A look-up probes the hash table of rows once for each prefix length in use, the longest first:
// a few dozen probes in real tables. Programming costs as much as in an exact table.
class PrefixTable final : public MatchTable {
 public:
  PrefixTable(const MatchLayout& layout, RowExtras extras);
  const StoredRow* lookup(std::span<const uint8_t> packet) const override;

 private:
  using LengthCounts = std::array<uint32_t, 129>;  // rows by prefix length
  void handleRowAdded(const StoredRow& row) override { ++countOf(row); }
  void handleRowLeaving(const StoredRow& row) override { --countOf(row); }
  uint32_t& countOf(const StoredRow& row);

  uint32_t prefixOffset_ = 0;
  std::array<LengthCounts, 3> counts_{};  // by address family
};

}  // namespace Forwarder
