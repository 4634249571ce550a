// The use of each action profile.
#include "PI/frontend/store/ProfileUse.h"

namespace pi::fe::proto {

namespace {

template <typename Elements>
uint64_t sizeOf(const ProfilePlan& profile, const Elements& elements) {
  if (profile.countsMembers) return static_cast<uint64_t>(elements.size());
  uint64_t weights = 0;
  for (const auto& element : elements) weights += repeats(element.weight());
  return weights;
}

}  // namespace

uint64_t sizeTaken(const ProfilePlan& profile, const Entry& entry) {
  switch (entry.kind) {
    case EntryKind::memberObject:
      return profile.withSelector ? 0 : 1;
    case EntryKind::groupObject:
      return sizeOf(profile, peekedGroup(entry).members());
    case EntryKind::actionSet:
      return sizeOf(profile, peekedActionSet(entry).action_profile_actions());
    default:
      return 0;
  }
}

ProfileUse::Users ProfileUse::users(const ObjectId& object) const {
  const auto found = users_.find(object);
  return found == users_.end() ? Users{} : found->second;
}

ProfileUse::Total ProfileUse::total(uint32_t profileId) const {
  const auto found = totals_.find(profileId);
  return found == totals_.end() ? Total{} : found->second;
}

void ProfileUse::countChange(const ProfilePlan& profile, const Entry* former, const Entry* now) {
  if (now != nullptr) doCount(profile, *now, 1);
  if (former != nullptr) doCount(profile, *former, -1);
}

void ProfileUse::doCount(const ProfilePlan& profile, const Entry& entry, int by) {
  for (const ObjectId& object : references(profile.id, entry)) {
    Users& users = users_[object];
    (entry.isObject() ? users.groups : users.entries) += static_cast<uint32_t>(by);
    if (!users.any()) users_.erase(object);
  }
  Total& total = totals_[profile.id];
  total.size += static_cast<uint64_t>(by) * sizeTaken(profile, entry);
  if (entry.isObject()) total.objects += static_cast<uint64_t>(by);
  if (entry.kind == EntryKind::actionSet) total.actionSets += static_cast<uint64_t>(by);
}

}  // namespace pi::fe::proto
