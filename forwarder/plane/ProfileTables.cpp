#include "forwarder/plane/ProfileTables.h"

#include <map>

#include "p4/tables/Refusal.h"
#include "platform/lattice/types/RowWalk.h"

namespace Forwarder {
namespace {

uint32_t idOf(std::string_view key) {
  uint32_t id = 0;
  for (const char byte : key) id = id << 8 | static_cast<uint8_t>(byte);
  return id;
}

}  // namespace

MemberTable::MemberTable(P4::Engine& engine, uint32_t profile, const Lattice::TableType& type,
                         const ProgramNames& names)
    : engine_(engine),
      profile_(profile),
      type_(type),
      actions_(type, names, [&](const std::string& name) {
        return P4::profileActionNamed(engine.program(), profile, name);
      }) {}

void MemberTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  const uint32_t id = idOf(row.key);
  P4::ProfileStore& store = engine_.tables().profile(profile_);
  if (members_.contains(id)) return store.modifyMember(id, actions_.specOf(value));
  store.insertMember(id, actions_.specOf(value));
  members_.insert(id);
}

void MemberTable::erase(std::string_view key) {
  const uint32_t id = idOf(key);
  if (!members_.contains(id)) return;
  engine_.tables().profile(profile_).removeMember(id);
  members_.erase(id);
}

// A member of weight N stands N times.
std::vector<P4::GroupShare> Groups::sharesOf(const std::vector<uint32_t>& members,
                                             const Held& held) {
  std::map<uint32_t, uint32_t> weights;
  for (const uint32_t member : members) ++weights[member];
  std::vector<P4::GroupShare> shares;
  for (const auto& [member, weight] : weights) {
    const auto port = held.watchPort.find(member);
    const bool watches = port != held.watchPort.end();
    shares.push_back({member, weight, watches ? std::optional(port->second) : std::nullopt});
  }
  return shares;
}

void Groups::groupIs(uint32_t group, const std::vector<uint32_t>& members) {
  P4::ProfileStore& store = engine_.tables().profile(profile_);
  Held& held = groups_[group];
  if (held.isThere) {
    store.modifyGroup(group, sharesOf(members, held));
  } else {
    store.insertGroup(group, sharesOf(members, held));
  }
  held.isThere = true;
  held.members = members;
}

void Groups::groupDel(uint32_t group) {
  const auto held = groups_.find(group);
  if (held == groups_.end() || !held->second.isThere) return;
  engine_.tables().profile(profile_).removeGroup(group);
  held->second.isThere = false;
  if (held->second.watchPort.empty()) groups_.erase(held);
}

// Rows of watched ports come in the commit of their group's row, before or behind it.
void Groups::watchIs(uint32_t group, uint32_t member, std::optional<uint32_t> port) {
  Held& held = groups_[group];
  if (port) {
    held.watchPort[member] = *port;
  } else {
    held.watchPort.erase(member);
  }
  changed_.insert(group);
}

void Groups::finish() {
  for (const uint32_t group : std::exchange(changed_, {})) {
    const auto held = groups_.find(group);
    if (held == groups_.end()) continue;
    if (held->second.isThere) {
      engine_.tables().profile(profile_).modifyGroup(group,
                                                     sharesOf(held->second.members, held->second));
    } else if (held->second.watchPort.empty()) {
      groups_.erase(held);
    }
  }
}

void GroupTable::write(const PlaneRow& row) {
  groups_->groupIs(idOf(row.key), Lattice::elementsOfArray(row.value));
}

void GroupTable::erase(std::string_view key) { groups_->groupDel(idOf(key)); }

void WatchTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  if (row.key.size() < 2 * sizeof(uint32_t) || value.arguments.empty()) {
    throw P4::Refusal(P4::RefusalKind::invalid, "the row has not the layout of a watched port");
  }
  groups_->watchIs(idOf(row.key.substr(0, sizeof(uint32_t))),
                   idOf(row.key.substr(sizeof(uint32_t))), idOf(value.arguments.front()));
}

void WatchTable::erase(std::string_view key) {
  groups_->watchIs(idOf(key.substr(0, sizeof(uint32_t))), idOf(key.substr(sizeof(uint32_t))), {});
}

}  // namespace Forwarder
