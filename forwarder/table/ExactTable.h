// Exact match: every field of a packet equals the row's.
#pragma once

#include "forwarder/table/MatchTable.h"

namespace Forwarder {

// Without masks and prefixes a packet's fields are the key: the hash table of rows is enough.
class ExactTable final : public MatchTable {
 public:
  ExactTable(const MatchLayout& layout, bool counted) : MatchTable(layout, counted) {}
  const StoredRow* lookup(std::span<const uint8_t> packet) const override {
    return row({reinterpret_cast<const char*>(packet.data()), packet.size()});
  }
};

}  // namespace Forwarder
