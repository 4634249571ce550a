// Action profiles beside their tables, and beside the agent's limits.
#include "pipeline/ProfileCheck.h"

#include <algorithm>
#include <set>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"

namespace Pipeline {
namespace {

using p4::config::v1::ActionProfile;
using p4::config::v1::ActionRef;
using p4::config::v1::Table;

std::string objectOf(const Table& table) { return "table " + table.preamble().name(); }
std::string objectOf(const ActionProfile& profile) {
  return "action profile " + profile.preamble().name();
}

bool lists(const ActionProfile& profile, const Table& table) {
  const auto& ids = profile.table_ids();
  return std::find(ids.begin(), ids.end(), table.preamble().id()) != ids.end();
}

std::set<uint32_t> actionIds(const Table& table) {
  std::set<uint32_t> ids;
  for (const ActionRef& ref : table.action_refs()) ids.insert(ref.id());
  return ids;
}

// The largest sum of weights that the P4Info lets a group have; 0: it sets no limit.
int64_t largestWeight(const ActionProfile& profile) {
  const int64_t size = profile.max_group_size();
  if (!profile.has_sum_of_members()) return size;
  return size * std::max<int64_t>(1, profile.sum_of_members().max_member_weight());
}

// The agent takes a profile's actions from the tables that the profile lists.
void checkTable(const Table& table, const P4InfoLookup& index, Findings* findings) {
  const ActionProfile* profile = index.actionProfile(table.implementation_id());
  if (profile == nullptr) return;
  if (!lists(*profile, table)) {
    findings->warning(objectOf(table), "names the " + objectOf(*profile) +
                                           ", which does not list it: its actions cannot be"
                                           " programmed");
  }
  for (const ActionRef& ref : table.action_refs()) {
    if (ref.scope() != ActionRef::GROUP_ACTION) continue;
    findings->warning(objectOf(table), "its group action " +
                                           quoted(index.action(ref.id())->preamble().name()) +
                                           " is not run: action sets with it are refused");
  }
}

void checkListedTables(const ActionProfile& profile, const P4InfoLookup& index,
                       Findings* findings) {
  const Table* first = nullptr;
  for (const uint32_t id : profile.table_ids()) {
    const Table& table = *index.table(id);
    if (first == nullptr) {
      first = &table;
    } else if (actionIds(*first) != actionIds(table)) {
      findings->warning(objectOf(profile),
                        "its tables " + first->preamble().name() + " and " +
                            table.preamble().name() +
                            " have different actions; P4Runtime wants them alike");
    }
  }
}

void checkSizes(const ActionProfile& profile, Findings* findings) {
  const std::string object = objectOf(profile);
  const std::string size = std::to_string(profile.max_group_size());
  if (!profile.with_selector()) {
    if (profile.max_group_size() != 0)
      findings->warning(object, "has a group size, but no selector: it takes members only");
    return;
  }
  if (largestWeight(profile) > maxGroupWeight) {
    findings->warning(object, "allows groups of " + std::to_string(largestWeight(profile)) +
                                  " members, counted with their weights; the agent holds " +
                                  std::to_string(maxGroupWeight) + " in one group");
  }
  if (profile.size() > 0 && profile.max_group_size() > profile.size()) {
    findings->warning(object, "allows groups of " + size + " members, but has room for " +
                                  std::to_string(profile.size()) + " in all");
  }
}

}  // namespace

void checkProfiles(const P4InfoLookup& index, Findings* findings) {
  for (const Table& table : index.p4Info().tables()) checkTable(table, index, findings);
  for (const ActionProfile& profile : index.p4Info().action_profiles()) {
    checkListedTables(profile, index, findings);
    checkSizes(profile, findings);
  }
}

}  // namespace Pipeline
