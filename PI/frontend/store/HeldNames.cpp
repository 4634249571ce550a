#include "PI/frontend/store/HeldNames.h"

#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

namespace {

// Visitors have number(type, number) for numbers in keys and action data, and name(type, name) for
// names in messages that the entry keeps.
template <typename Visitor>
void visitAt(Dictionary* names, const uint8_t* at, Visitor& visitor) {
  if (names == nullptr) return;
  if (const uint32_t number = numberAt(at); number != 0)
    visitor.number(*names, number);  // 0: don't care
}

template <typename Visitor>
void visitAction(const ActionUser& user, const Entry& entry, Visitor& visitor) {
  const ActionUse* use = user.actionUse(entry.actionId);
  if (use == nullptr) return;
  for (const ParamPlan& param : use->action->params) {
    visitAt(param.names, entry.actionData() + param.offset, visitor);
  }
}

// The ports that elements of a group or set watch.
template <typename Elements, typename Visitor>
void visitWatches(Dictionary* ports, const Elements& elements, Visitor& visitor) {
  if (ports == nullptr) return;
  for (const auto& element : elements) {
    if (!element.watch_port().empty()) visitor.name(*ports, element.watch_port());
  }
}

// The hidden members have the numbers.
template <typename Visitor>
void visitSet(const ActionUser& user, const Entry& entry, Visitor& visitor) {
  for (const auto& element : peekedActionSet(entry).action_profile_actions()) {
    const ActionUse* use = user.actionUse(element.action().action_id());
    if (use == nullptr) continue;
    for (const auto& given : element.action().params()) {
      const ParamPlan* param = use->action->param(given.param_id());
      if (param != nullptr && param->names != nullptr) visitor.name(*param->names, given.value());
    }
  }
}

template <typename Visitor>
void visitPorts(const EntityPlan& plan, const p4::v1::Entity& entity, Visitor& visitor) {
  const auto& replication = entity.packet_replication_engine_entry();
  const auto& replicas = replication.has_multicast_group_entry()
                             ? replication.multicast_group_entry().replicas()
                             : replication.clone_session_entry().replicas();
  for (const auto& replica : replicas) {
    if (!replica.has_egress_port()) visitor.name(*plan.ports, replica.port());
  }
}

template <typename Visitor>
void visitMembers(const EntityPlan& plan, const Entry& entry, Visitor& visitor) {
  p4::v1::Entity entity;
  if (!readEntity(plan, entry, &entity)) return;
  if (plan.ports != nullptr) return visitPorts(plan, entity, visitor);
  for (const auto& member : entity.value_set_entry().members()) {
    for (const auto& match : member.match()) {
      for (const FieldPlan& field : plan.list->fields) {
        const bool isIts = field.names != nullptr && field.id == match.field_id();
        if (isIts) visitor.name(*field.names, wholeValue(match));
      }
    }
  }
}

template <typename Visitor>
void visitNames(const ActionUser& user, const TablePlan* table, const Entry& entry,
                Visitor visitor) {
  if (!user.usesNames) return;
  if (table != nullptr && table->entity != nullptr) {
    return visitMembers(*table->entity, entry, visitor);
  }
  if (table != nullptr) {
    for (const FieldPlan& field : table->fields) {
      visitAt(field.names, entry.keyData() + field.offset, visitor);
    }
  }
  if (entry.kind == EntryKind::action || entry.kind == EntryKind::memberObject) {
    visitAction(user, entry, visitor);
  }
  if (entry.kind == EntryKind::actionSet && table != nullptr) {
    visitSet(user, entry, visitor);
    visitWatches(table->profile->ports, peekedActionSet(entry).action_profile_actions(), visitor);
  }
  if (entry.kind == EntryKind::groupObject) {
    const auto& profile = static_cast<const ProfilePlan&>(user);
    visitWatches(profile.ports, peekedGroup(entry).members(), visitor);
  }
}

struct Holding {
  static void number(Dictionary& type, uint32_t number) { type.hold(number); }
  static void name(Dictionary& type, const std::string& name) { type.hold(name); }
};

struct Counting {
  absl::flat_hash_map<Dictionary*, absl::flat_hash_map<uint32_t, uint32_t>>* holders;
  void number(Dictionary& type, uint32_t number) const { ++(*holders)[&type][number]; }
  static void name(Dictionary& type, const std::string& name) { type.hold(name); }
};

struct Taking {
  NamePins* pins;
  void number(Dictionary& type, uint32_t number) const { pins->add(type, {number, false}); }
  void name(Dictionary& type, const std::string& name) const {
    if (const auto number = type.number(name)) pins->add(type, {*number, false});
  }
};

}  // namespace

void holdNames(const ActionUser& user, const TablePlan* table, const Entry& entry) {
  visitNames(user, table, entry, Holding{});
}

void NameHolders::add(const TablePlan& table, const Entry& entry) {
  visitNames(table, &table, entry, Counting{&holders_});
}

void NameHolders::holdAll() {
  for (const auto& [type, numbers] : holders_) {
    for (const auto& [number, holders] : numbers) type->hold(number, holders);
  }
  holders_.clear();
}

void takeNames(const ActionUser& user, const TablePlan* table, const Entry& entry, NamePins* pins) {
  visitNames(user, table, entry, Taking{pins});
}

}  // namespace pi::fe::proto
