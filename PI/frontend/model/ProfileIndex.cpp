// Compiles the action profiles of a P4Info into plans.
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/model/P4InfoIndex.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;

namespace {

bool hasStringTypes(const config::P4Info& p4Info) {
  for (const auto& [name, type] : p4Info.type_info().new_types()) {
    if (type.translated_type().has_sdn_string()) return true;
  }
  return false;
}

void requireNotNegative(const ProfilePlan& plan, const char* what, int64_t value) {
  if (value >= 0) return;
  refuse(code::invalidArgument, "P4Info: action profile ", plan.name, ": ", what, " is ", value,
         "; it must not be negative");
}

}  // namespace

void P4InfoIndex::profilesAre(const config::P4Info& p4Info) {
  const bool portsAreStrings = hasStringTypes(p4Info);
  for (const auto& profile : p4Info.action_profiles()) {
    profiles_.push_back(profilePlan(profile));
    profiles_.back()->portsAreStrings = portsAreStrings;
  }
}

std::unique_ptr<ProfilePlan> P4InfoIndex::profilePlan(const config::ActionProfile& profile) const {
  auto plan = std::make_unique<ProfilePlan>();
  plan->id = profile.preamble().id();
  plan->name = profile.preamble().name();
  const int32_t maxMemberWeight = profile.sum_of_members().max_member_weight();
  requireNotNegative(*plan, "size", profile.size());
  requireNotNegative(*plan, "max_group_size", profile.max_group_size());
  requireNotNegative(*plan, "max_member_weight", maxMemberWeight);
  plan->withSelector = profile.with_selector();
  plan->size = static_cast<uint64_t>(profile.size());
  plan->maxGroupSize = static_cast<uint32_t>(profile.max_group_size());
  plan->countsMembers = profile.has_sum_of_members();
  plan->maxMemberWeight = static_cast<uint32_t>(maxMemberWeight);
  plan->weightsDisallowed = profile.weights_disallowed();
  return plan;
}

namespace {

void addActions(const TablePlan& table, ProfilePlan* profile) {
  for (const ActionUse& use : table.actions) {
    if (profile->actionUse(use.id) == nullptr) profile->actions.push_back(use);
  }
}

}  // namespace

// The tables of a profile share one list of actions; should they differ, members take any of them.
void P4InfoIndex::profileOfTableIs(TablePlan* plan, uint32_t profileId) {
  requireKind(profileId, "action profile", "table " + plan->name);
  for (const auto& profile : profiles_) {
    if (profile->id != profileId) continue;
    plan->profile = profile.get();
    addActions(*plan, profile.get());
  }
}

// A table that names its profile is enough. One that names none keeps its own actions, although a
// profile lists it; one that names another contradicts the profile.
void P4InfoIndex::tablesOfProfilesAre(const config::P4Info& p4Info) {
  for (const auto& profile : p4Info.action_profiles()) {
    const std::string user = "action profile " + profile.preamble().name();
    for (const uint32_t tableId : profile.table_ids()) {
      requireKind(tableId, "table", user);
      const TablePlan& plan = *table(tableId);
      if (plan.profile == nullptr) {
        for (const auto& own : profiles_) {
          if (own->id == profile.preamble().id()) addActions(plan, own.get());
        }
      } else if (plan.profile->id != profile.preamble().id()) {
        refuse(code::invalidArgument, "P4Info: ", user, " is that of table ", plan.name,
               ", which names ", plan.profile->name, " as its implementation");
      }
    }
  }
}

}  // namespace pi::fe::proto
