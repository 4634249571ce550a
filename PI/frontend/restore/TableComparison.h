// Whether two pipelines define a table alike, so that the entries of one are entries of the other
// bit for bit.
#pragma once

#include <cstdint>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// Any thread. The P4Infos outlive it.
class TableComparison {
 public:
  TableComparison(const p4::config::v1::P4Info& former, const p4::config::v1::P4Info& next);

  // The tables of that id, their actions and direct resources are equal, but for the tables' sizes.
  // False when one has none.
  bool areAlike(uint32_t tableId) const;

 private:
  bool actionsAreAlike(const p4::config::v1::Table& table) const;
  bool resourcesAreAlike(const p4::config::v1::Table& table) const;

  const p4::config::v1::P4Info& former_;
  const p4::config::v1::P4Info& next_;
  const bool typesAreAlike_;
};

}  // namespace pi::fe::proto
