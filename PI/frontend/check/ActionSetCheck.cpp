// A one-shot action set of a table entry, checked against the P4Info.
#include "PI/frontend/check/ActionSetCheck.h"

#include <algorithm>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/ProfileCheck.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/ProfileObjects.h"
#include "PI/frontend/store/WatchPorts.h"

namespace pi::fe::proto {

using Set = p4::v1::ActionProfileActionSet;

namespace {

// Groups are always picked by hash, and sized as the program says.
void checkSettings(const ProfilePlan& profile, const std::string& text, const Set& set) {
  if (!Set::ActionSelectionMode_IsValid(set.action_selection_mode())) {
    refuse(code::invalidArgument, text, ": the action selection mode ",
           static_cast<int>(set.action_selection_mode()), " is unknown");
  }
  if (set.action_selection_mode() == Set::RANDOM) {
    refuse(code::unimplemented, text, ": the action selection mode RANDOM is not supported");
  }
  if (!Set::SizeSemantics_IsValid(set.size_semantics())) {
    refuse(code::invalidArgument, text, ": the size semantics ",
           static_cast<int>(set.size_semantics()), " are unknown");
  }
  const auto own = profile.countsMembers ? Set::SUM_OF_MEMBERS : Set::SUM_OF_WEIGHTS;
  if (set.size_semantics() == Set::DEFAULT_SIZE_DETERMINED_BY_ACTION_SELECTOR) return;
  if (set.size_semantics() == own) return;
  refuse(code::unimplemented, text, ": size semantics other than the selector's own ",
         Set::SizeSemantics_Name(own), " are not supported");
}

void checkAction(const TablePlan& table, const p4::v1::Action& given, const Naming& naming) {
  const ActionPlan& action = checkedAction(table, given.action_id());
  std::string scratch(action.dataBytes, '\0');
  encodeActionData(table, action, given, reinterpret_cast<uint8_t*>(scratch.data()), naming);
}

const ActionPlan& actionOf(const TablePlan& table, const p4::v1::ActionProfileAction& element) {
  return *table.actionUse(element.action().action_id())->action;
}

bool isCanonical(const TablePlan& table, const p4::v1::ActionProfileAction& element) {
  return isPortCanonical(*table.profile, element.watch_port()) &&
         areParamsShortest(actionOf(table, element), element.action());
}

}  // namespace

void checkActionSet(const TablePlan& table, const Set& set, const Naming& naming) {
  const ProfilePlan& profile = *table.profile;
  const std::string text = absl::StrCat("table ", table.name, ": action set");
  checkSettings(profile, text, set);
  GroupWeight weight;
  for (const auto& element : set.action_profile_actions()) {
    const ElementText at{text, "element", weight.members};
    checkAction(table, element.action(), naming);
    checkWeight(profile, at, element.weight());
    checkWatch(profile, at, element.watch(), element.watch_port());
    if (profile.ports != nullptr) watchedPort(profile, element, naming);
    weight.weights += repeats(element.weight());
    ++weight.members;
  }
  if (set.has_group_action()) {
    refuse(code::unimplemented, text, ": a group action is not supported");
  }
  const uint64_t size = weight.size(profile);
  if (profile.maxGroupSize > 0 && size > profile.maxGroupSize) {
    refuse(code::invalidArgument, text, ": its ", profile.countsMembers ? "elements" : "weights",
           " add up to ", size, "; the program's max_group_size is ", profile.maxGroupSize);
  }
  checkRepeats(text, weight);
}

std::string canonicalBytes(const TablePlan& table, const Set& set) {
  const auto& elements = set.action_profile_actions();
  if (std::all_of(elements.begin(), elements.end(),
                  [&](const auto& element) { return isCanonical(table, element); })) {
    return set.SerializeAsString();
  }
  Set canonical = set;
  for (auto& element : *canonical.mutable_action_profile_actions()) {
    shortenParams(actionOf(table, element), element.mutable_action());
    if (element.has_watch_port()) canonicalPortIs(*table.profile, element.mutable_watch_port());
  }
  return canonical.SerializeAsString();
}

}  // namespace pi::fe::proto
