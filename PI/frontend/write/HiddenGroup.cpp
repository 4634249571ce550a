// The members and the group behind a one-shot action set.
#include "PI/frontend/write/HiddenGroup.h"

#include <algorithm>

#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/ProfileObjects.h"
#include "PI/frontend/target/TargetGroup.h"

namespace pi::fe::proto {

namespace {

// An element of a set that was checked when it was written.
struct Element {
  uint32_t actionId = 0;
  std::string data;
  uint32_t repeats = 0;
  ActionBytes action() const { return {actionId, data}; }
};

std::vector<Element> elementsOf(const TablePlan& table, const Entry& entry) {
  std::vector<Element> elements;
  const p4::v1::ActionProfileActionSet set = actionSet(entry);
  for (const auto& given : set.action_profile_actions()) {
    const ActionPlan& action = checkedAction(table, given.action().action_id());
    Element& element = elements.emplace_back();
    element.actionId = action.id;
    element.data.resize(action.dataBytes);
    element.repeats = repeats(given.weight());
    encodeActionData(table, action, given.action(),
                     reinterpret_cast<uint8_t*>(element.data.data()));
  }
  return elements;
}

// The members, element by element; existing members are used again. Members no longer needed stay
// at the end.
std::vector<Share> builtMembers(uint32_t profileId, const std::vector<Element>& before,
                                const std::vector<Element>& after, const HiddenHandles& handles,
                                TargetCalls* calls) {
  std::vector<Share> shares(std::max(before.size(), after.size()));
  for (size_t i = 0; i < shares.size(); ++i) {
    Share& share = shares[i];
    if (i < before.size()) {
      share.member = handles.members[i];
      share.before = before[i].repeats;
    }
    if (i >= after.size()) continue;
    share.after = after[i].repeats;
    if (i >= before.size()) {
      share.member = calls->memberCreate(profileId, after[i].action());
    } else if (before[i].action() != after[i].action()) {
      calls->memberModify(profileId, share.member, after[i].action());
    }
  }
  return shares;
}

}  // namespace

void doBuildHiddenGroup(const TablePlan& table, const Entry* former, Entry* entry,
                        TargetCalls* calls) {
  const uint32_t profileId = table.profile->id;
  const bool reuse = former != nullptr && former->kind == EntryKind::actionSet;
  const std::vector<Element> after = elementsOf(table, *entry);
  const std::vector<Element> before = reuse ? elementsOf(table, *former) : std::vector<Element>();
  HiddenHandles handles = reuse ? hiddenHandles(*former) : HiddenHandles();
  const std::string bytes(serializedActionSet(*entry));
  calls->contextIs(0, 0, {});
  const std::vector<Share> shares = builtMembers(profileId, before, after, handles, calls);
  calls->contextIs(0, 0, bytes);
  if (!reuse) handles.group = calls->groupCreate(profileId, table.profile->maxGroupSize);
  doReshare(calls, profileId, handles.group, shares);
  if (reuse && serializedActionSet(*former) != bytes) {
    calls->groupBytesSet(profileId, handles.group);
  }
  for (size_t i = after.size(); i < shares.size(); ++i) {
    calls->memberDelete(profileId, shares[i].member);
  }
  handles.members.clear();
  for (size_t i = 0; i < after.size(); ++i) handles.members.push_back(shares[i].member);
  actionSetIs(entry, handles, bytes);
}

void doDeleteHiddenGroup(uint32_t profileId, const Entry& former, TargetCalls* calls) {
  const HiddenHandles handles = hiddenHandles(former);
  calls->contextIs(0, 0, {});
  calls->groupDelete(profileId, handles.group);
  for (const uint64_t member : handles.members) calls->memberDelete(profileId, member);
}

}  // namespace pi::fe::proto
