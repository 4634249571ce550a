// Whether two pipelines define a table alike.
#include "PI/frontend/restore/TableComparison.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>

namespace pi::fe::proto {

using google::protobuf::util::MessageDifferencer;
using p4::config::v1::Table;

namespace {

template <typename Objects>
auto find(const Objects& objects, uint32_t id) {
  return std::ranges::find(objects, id, [](const auto& one) { return one.preamble().id(); });
}

// Both have the object and it is equal, or neither has it.
template <typename Objects>
bool isAlike(const Objects& former, const Objects& next, uint32_t id) {
  const auto one = find(former, id);
  const auto other = find(next, id);
  if (one == former.end() || other == next.end()) return one == former.end() && other == next.end();
  return MessageDifferencer::Equals(*one, *other);
}

// Entries say nothing of the size.
bool isAlike(const Table& former, const Table& next) {
  MessageDifferencer differencer;
  differencer.IgnoreField(Table::descriptor()->FindFieldByNumber(Table::kSizeFieldNumber));
  return differencer.Compare(former, next);
}

}  // namespace

TableComparison::TableComparison(const p4::config::v1::P4Info& former,
                                 const p4::config::v1::P4Info& next)
    : former_(former),
      next_(next),
      typesAreAlike_(MessageDifferencer::Equals(former.type_info(), next.type_info())) {}

bool TableComparison::areAlike(uint32_t tableId) const {
  const auto table = find(former_.tables(), tableId);
  const auto next = find(next_.tables(), tableId);
  if (!typesAreAlike_ || table == former_.tables().end() || next == next_.tables().end()) {
    return false;
  }
  return isAlike(*table, *next) && actionsAreAlike(*table) && resourcesAreAlike(*table);
}

bool TableComparison::actionsAreAlike(const Table& table) const {
  return std::ranges::all_of(table.action_refs(), [this](const auto& ref) {
    return isAlike(former_.actions(), next_.actions(), ref.id());
  });
}

bool TableComparison::resourcesAreAlike(const Table& table) const {
  return std::ranges::all_of(table.direct_resource_ids(), [this](uint32_t id) {
    return isAlike(former_.direct_counters(), next_.direct_counters(), id) &&
           isAlike(former_.direct_meters(), next_.direct_meters(), id);
  });
}

}  // namespace pi::fe::proto
