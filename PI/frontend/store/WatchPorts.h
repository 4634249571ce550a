// The ports that members of groups and of action sets watch, as rows of their own: group and member
// by the lower halves of the target's handles, and the port.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/store/EntryStore.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// By the PI key of the row; members that watch none have no row.
using WatchedPorts = std::map<std::string, uint32_t>;

// The port that an element of a group or set watches, as rows have it; 0: none, or no number is
// known for it. Throws what numberOf() throws.
uint32_t watchedPort(const ProfilePlan& profile, const p4::v1::ActionProfileGroup::Member& element,
                     const Naming& naming = {});
uint32_t watchedPort(const ProfilePlan& profile, const p4::v1::ActionProfileAction& element,
                     const Naming& naming = {});

// Whether the group, or the entry's set, names any port.
bool watchesAny(const Entry& entry);

std::string watchKey(uint64_t group, uint64_t member);

// Of a group, or of an entry with an action set; nothing for any other. `store` has the members of
// the group.
WatchedPorts watchedPorts(const EntryStore& store, const ProfilePlan& profile, const Entry& entry);

EntryPtr makeWatchRow(const TablePlan& rows, const std::string& key, uint32_t port);
uint32_t portOfWatchRow(const TablePlan& rows, const Entry& row);

// The changes of rows that a change of the group or of the entry asks for. Null: there was none, or
// there will be none.
std::vector<Change> watchChanges(const EntryStore& store, const ProfilePlan& profile,
                                 const Entry* former, const Entry* now);

}  // namespace pi::fe::proto
