// The action set of an entry after a restart.
#include "PI/frontend/restore/RestoredSet.h"

#include <map>
#include <optional>
#include <tuple>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/ActionSetCheck.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/WatchPorts.h"
#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

using Set = p4::v1::ActionProfileActionSet;

namespace {

std::optional<Set> writtenSet(const TablePlan& table, std::string_view bytes) {
  Set set;
  if (!set.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return std::nullopt;
  try {
    checkActionSet(table, set);
  } catch (const Refusal&) {
    return std::nullopt;
  }
  return set;
}

// The identity of a member here: action, weight, and the port unless that does not count.
using Look = std::tuple<uint32_t, std::string, uint32_t, uint32_t>;

Look lookOf(const TablePlan& table, const p4::v1::ActionProfileAction& element, bool withPort) {
  const ActionPlan& action = checkedAction(table, element.action().action_id());
  std::string data(action.dataBytes, '\0');
  encodeActionData(table, action, element.action(), reinterpret_cast<uint8_t*>(data.data()));
  return {action.id, std::move(data), repeats(element.weight()),
          withPort ? watchedPort(*table.profile, element) : 0};
}

Look lookOf(const HiddenMember& member, bool withPort) {
  const ActionBytes action = actionBytes(*member.object);
  return {action.actionId, std::string(action.data), member.repeats, withPort ? member.port : 0};
}

// Each element takes a member of its look; nothing when they do not come out even.
std::optional<std::vector<uint64_t>> assigned(const TablePlan& table, const Set& set,
                                              const std::vector<HiddenMember>& members,
                                              bool withPorts = false) {
  if (static_cast<size_t>(set.action_profile_actions_size()) != members.size()) {
    return std::nullopt;
  }
  std::multimap<Look, uint64_t> free;
  for (const HiddenMember& member : members) {
    free.emplace(lookOf(member, withPorts), member.handle);
  }
  std::vector<uint64_t> handles;
  for (const auto& element : set.action_profile_actions()) {
    const auto found = free.find(lookOf(table, element, withPorts));
    if (found == free.end()) return std::nullopt;
    handles.push_back(found->second);
    free.erase(found);
  }
  return handles;
}

RestoredSet madeAnew(const TablePlan& table, const std::vector<HiddenMember>& members) {
  RestoredSet result;
  for (const HiddenMember& member : members) {
    auto* element = result.set.add_action_profile_actions();
    const ActionUse* use = table.profile->actionUse(member.object->actionId);
    decodeAction(*use->action, member.object->actionData(), element->mutable_action());
    if (!table.profile->weightsDisallowed) {
      element->set_weight(static_cast<int32_t>(member.repeats));
    }
    result.members.push_back(member.handle);
  }
  return result;
}

}  // namespace

RestoredSet restoredSet(const TablePlan& table, const std::vector<HiddenMember>& members,
                        std::string_view bytes) {
  const std::optional<Set> written = writtenSet(table, bytes);
  if (!written) return madeAnew(table, members);
  std::optional<std::vector<uint64_t>> handles = assigned(table, *written, members);
  if (!handles) return madeAnew(table, members);
  return {*written, *std::move(handles)};
}

std::optional<std::vector<uint64_t>> membersByPort(const TablePlan& table,
                                                   const std::vector<HiddenMember>& members,
                                                   std::string_view bytes) {
  const std::optional<Set> written = writtenSet(table, bytes);
  return written ? assigned(table, *written, members, true) : std::nullopt;
}

}  // namespace pi::fe::proto
