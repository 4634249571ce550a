// Whether the entries of a table go over from one pipeline to another.
#include "PI/frontend/restore/TableComparison.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>

namespace pi::fe::proto {

using google::protobuf::util::MessageDifferencer;
using p4::config::v1::Action;
using p4::config::v1::ActionRef;
using p4::config::v1::Table;

namespace {

template <typename Objects>
auto find(const Objects& objects, uint32_t id) {
  return std::ranges::find(objects, id, [](const auto& one) { return one.preamble().id(); });
}

// Entries name objects by their ids.
template <typename Object>
void clearNames(Object* object) {
  const uint32_t id = object->preamble().id();
  object->clear_preamble();
  object->mutable_preamble()->set_id(id);
}

// Of a field or a parameter.
template <typename Value>
void clearTexts(Value* value) {
  value->clear_name();
  value->clear_annotations();
  value->clear_annotation_locations();
  value->clear_structured_annotations();
  value->clear_doc();
}

// The parts on which entries depend.
template <typename Object>
Object meaningOf(Object object) {
  clearNames(&object);
  return object;
}
Action meaningOf(Action action) {
  clearNames(&action);
  for (auto& param : *action.mutable_params()) clearTexts(&param);
  return action;
}
Table meaningOf(Table table) {
  clearNames(&table);
  table.clear_size();
  table.clear_action_refs();  // compared one by one
  table.clear_const_default_action_id();
  table.clear_initial_default_action();
  for (auto& field : *table.mutable_match_fields()) clearTexts(&field);
  return table;
}

// Both have the object with the same meaning, or neither has it.
template <typename Objects>
bool areAlike(const Objects& former, const Objects& next, uint32_t id) {
  const auto one = find(former, id);
  const auto other = find(next, id);
  if (one == former.end() || other == next.end()) return one == former.end() && other == next.end();
  return MessageDifferencer::Equals(meaningOf(*one), meaningOf(*other));
}

}  // namespace

TableComparison::TableComparison(const p4::config::v1::P4Info& former,
                                 const p4::config::v1::P4Info& next)
    : former_(former), next_(next) {}

bool TableComparison::entriesStay(uint32_t tableId) const {
  const auto former = find(former_.tables(), tableId);
  const auto next = find(next_.tables(), tableId);
  if (former == former_.tables().end() || next == next_.tables().end()) return false;
  return MessageDifferencer::Equals(meaningOf(*former), meaningOf(*next)) &&
         typesAreAlike(former->match_fields()) && actionsStay(*former, *next) &&
         resourcesAreAlike(*former);
}

// A type may be translated in another way.
template <typename Values>
bool TableComparison::typesAreAlike(const Values& values) const {
  return std::ranges::all_of(values, [this](const auto& value) {
    const std::string& name = value.type_name().name();
    const auto& formerTypes = former_.type_info().new_types();
    const auto& nextTypes = next_.type_info().new_types();
    const auto former = formerTypes.find(name);
    const auto next = nextTypes.find(name);
    if (former == formerTypes.end() || next == nextTypes.end()) {
      return former == formerTypes.end() && next == nextTypes.end();
    }
    return MessageDifferencer::Equals(former->second, next->second);
  });
}

bool TableComparison::actionsStay(const Table& former, const Table& next) const {
  return std::ranges::all_of(former.action_refs(), [&](const ActionRef& ref) {
    const auto there = std::ranges::find(next.action_refs(), ref.id(), &ActionRef::id);
    return there != next.action_refs().end() && there->scope() == ref.scope() &&
           areAlike(former_.actions(), next_.actions(), ref.id()) &&
           typesAreAlike(find(former_.actions(), ref.id())->params());
  });
}

bool TableComparison::resourcesAreAlike(const Table& table) const {
  return std::ranges::all_of(table.direct_resource_ids(), [this](uint32_t id) {
    return areAlike(former_.direct_counters(), next_.direct_counters(), id) &&
           areAlike(former_.direct_meters(), next_.direct_meters(), id);
  });
}

}  // namespace pi::fe::proto
