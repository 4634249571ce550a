#include "p4/tables/ProfileStore.h"

#include <algorithm>

#include "p4/tables/Refusal.h"

namespace P4 {

ProfileStore::ProfileStore(const Program& program, uint32_t profile, Sides& sides)
    : program_(program), profile_(profile), sides_(sides) {}

ProfileStore::~ProfileStore() = default;

std::unique_ptr<Member> ProfileStore::makeMember(const ActionSpec& action) {
  auto member = std::make_unique<Member>();
  member->ownAction = encodeAction(program_, action);
  member->action[0] = member->action[1] = member->ownAction.get();
  member->handle = handles_.take();
  return member;
}

void ProfileStore::retire(std::unique_ptr<Member> member) {
  handles_.give(member->handle);
  retired_.members.push_back(std::move(member));
}

ProfileStore::Copies& ProfileStore::copiesOf(uint32_t id) {
  const auto found = members_.find(id);
  if (found == members_.end())
    throw Refusal(RefusalKind::notFound, "action profile " + program_.profiles[profile_].name +
                                             " has no member " + std::to_string(id));
  return found->second;
}

ProfileStore::Held& ProfileStore::heldOf(uint32_t id) {
  const auto found = groups_.find(id);
  if (found == groups_.end())
    throw Refusal(RefusalKind::notFound, "action profile " + program_.profiles[profile_].name +
                                             " has no group " + std::to_string(id));
  return found->second;
}

// --- members

void ProfileStore::insertMember(uint32_t id, const ActionSpec& action) {
  if (members_.contains(id))
    throw Refusal(RefusalKind::alreadyExists, "member " + std::to_string(id) + " is there already");
  Copies copies;
  copies.members.push_back(makeMember(action));
  copies.action = action;
  idOfMember_[copies.members[0].get()] = id;
  members_.emplace(id, std::move(copies));
}

void ProfileStore::modifyMember(uint32_t id, const ActionSpec& action) {
  Copies& copies = copiesOf(id);
  encodeAction(program_, action);  // throws before anything changes
  copies.action = action;
  for (const auto& member : copies.members) {
    ActionData::Ptr data = encodeAction(program_, action);
    sides_.change([member = member.get(), data = data.get()](Side& side) {
      member->action[side.number] = data;
    });
    retired_.actions.push_back(std::exchange(member->ownAction, std::move(data)));
  }
}

void ProfileStore::removeMember(uint32_t id) {
  Copies& copies = copiesOf(id);
  if (copies.groups || copies.entries)
    throw Refusal(RefusalKind::inUse, "member " + std::to_string(id) + " is in use");
  idOfMember_.erase(copies.members[0].get());
  for (auto& member : copies.members) retire(std::move(member));
  members_.erase(id);
}

// As many copies as the greatest weight of the member in any group, and one at least.
void ProfileStore::fitCopies(uint32_t id) {
  Copies& copies = copiesOf(id);
  uint32_t wanted = 1;
  for (const auto& [group, held] : groups_)
    for (const GroupShare& share : held.shares)
      if (share.member == id) wanted = std::max(wanted, share.weight);
  while (copies.members.size() < wanted) copies.members.push_back(makeMember(copies.action));
  while (copies.members.size() > wanted) {
    retire(std::move(copies.members.back()));
    copies.members.pop_back();
  }
}

// --- groups

void ProfileStore::checkShares(const std::vector<GroupShare>& shares) {
  absl::flat_hash_set<uint32_t> seen;
  for (const GroupShare& share : shares) {
    copiesOf(share.member);
    if (share.weight == 0 || share.weight > 65536)
      throw Refusal(RefusalKind::invalid, "a weight of 1 to 65536 is wanted");
    if (!seen.insert(share.member).second)
      throw Refusal(RefusalKind::invalid,
                    "member " + std::to_string(share.member) + " is named twice in a group");
  }
}

void ProfileStore::setShares(Held& held, const std::vector<GroupShare>& shares) {
  const std::vector<GroupShare> before = std::exchange(held.shares, shares);
  for (const GroupShare& share : shares) ++copiesOf(share.member).groups;
  for (const GroupShare& share : before) --copiesOf(share.member).groups;
  for (const GroupShare& share : shares) fitCopies(share.member);
  publish(held);
  for (const GroupShare& share : before) fitCopies(share.member);
}

void ProfileStore::publish(Held& held) {
  std::vector<Share> shares;
  for (const GroupShare& share : held.shares)
    for (uint32_t copy = 0; copy < share.weight; ++copy)
      shares.push_back({copiesOf(share.member).members[copy].get(), share.watchPort});
  publish(*held.group, shares);
}

void ProfileStore::publish(Group& group, const std::vector<Share>& shares) {
  std::vector<const Member*> active;
  for (const Share& share : shares)
    if (!share.watchPort || !downPorts_.contains(*share.watchPort)) active.push_back(share.member);
  std::sort(active.begin(), active.end(),
            [](const Member* one, const Member* other) { return one->handle < other->handle; });
  sides_.change([group = &group, active = std::move(active)](Side& side) {
    group->active[side.number] = active;
  });
}

void ProfileStore::insertGroup(uint32_t id, const std::vector<GroupShare>& shares) {
  if (groups_.contains(id))
    throw Refusal(RefusalKind::alreadyExists, "group " + std::to_string(id) + " is there already");
  checkShares(shares);
  Held& held = groups_[id];
  idOfGroup_[held.group.get()] = id;
  setShares(held, shares);
}

void ProfileStore::modifyGroup(uint32_t id, const std::vector<GroupShare>& shares) {
  Held& held = heldOf(id);
  checkShares(shares);
  setShares(held, shares);
}

void ProfileStore::removeGroup(uint32_t id) {
  Held& held = heldOf(id);
  if (held.entries) throw Refusal(RefusalKind::inUse, "group " + std::to_string(id) + " is in use");
  setShares(held, {});
  idOfGroup_.erase(held.group.get());
  retired_.groups.push_back(std::move(held.group));
  groups_.erase(id);
}

Outcome ProfileStore::member(uint32_t id) { return {.member = copiesOf(id).members[0].get()}; }
Outcome ProfileStore::group(uint32_t id) { return {.group = heldOf(id).group.get()}; }

void ProfileStore::use(const Outcome& outcome, int change) {
  if (const auto member = idOfMember_.find(outcome.member); member != idOfMember_.end())
    copiesOf(member->second).entries += static_cast<uint32_t>(change);
  if (const auto group = idOfGroup_.find(outcome.group); group != idOfGroup_.end())
    heldOf(group->second).entries += static_cast<uint32_t>(change);
}

// --- one-shot action sets

Outcome ProfileStore::insertOneShot(const std::vector<OneShotAction>& actions) {
  for (const OneShotAction& one : actions) {
    encodeAction(program_, one.action);
    if (one.weight == 0 || one.weight > 65536)
      throw Refusal(RefusalKind::invalid, "a weight of 1 to 65536 is wanted");
  }
  OneShot made;
  for (const OneShotAction& one : actions)
    for (uint32_t copy = 0; copy < one.weight; ++copy) {
      made.members.push_back(makeMember(one.action));
      made.shares.push_back({made.members.back().get(), one.watchPort});
    }
  publish(*made.group, made.shares);
  const Group* group = made.group.get();
  oneShots_.emplace(group, std::move(made));
  return {.group = group};
}

void ProfileStore::removeOneShot(const Outcome& outcome) {
  const auto found = oneShots_.find(outcome.group);
  if (found == oneShots_.end()) return;
  for (auto& member : found->second.members) retire(std::move(member));
  retired_.groups.push_back(std::move(found->second.group));
  oneShots_.erase(found);
}

void ProfileStore::portIs(uint32_t port, bool up) {
  const bool changed = up ? downPorts_.erase(port) : downPorts_.insert(port).second;
  if (!changed) return;
  const auto watches = [port](const auto& share) { return share.watchPort == port; };
  for (auto& [id, held] : groups_)
    if (std::any_of(held.shares.begin(), held.shares.end(), watches)) publish(held);
  for (auto& [group, one] : oneShots_)
    if (std::any_of(one.shares.begin(), one.shares.end(), watches)) publish(*one.group, one.shares);
}

}  // namespace P4
