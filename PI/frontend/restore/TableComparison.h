// Whether the entries of a table in one pipeline are entries of that table in another one, bit for
// bit.
#pragma once

#include <cstdint>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// Any thread. The P4Infos outlive it.
class TableComparison {
 public:
  TableComparison(const p4::config::v1::P4Info& former, const p4::config::v1::P4Info& next);

  // The tables of that id, the former one's actions, and the direct resources are the same. Names,
  // texts for people and sizes may differ, and the next one may have more actions. False when one
  // pipeline has no such table.
  bool entriesStay(uint32_t tableId) const;

 private:
  bool actionsStay(const p4::config::v1::Table& former, const p4::config::v1::Table& next) const;
  bool resourcesAreAlike(const p4::config::v1::Table& table) const;
  template <typename Values>
  bool typesAreAlike(const Values& values) const;

  const p4::config::v1::P4Info& former_;
  const p4::config::v1::P4Info& next_;
};

}  // namespace pi::fe::proto
