// The rows of action profiles: keyed by the lower half of a member or group handle.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/rows/WritableTable.h"

namespace P4Runtime {

// Asserts that the handle is a member's (a group's), and that its id is not 0.
uint32_t checkedMemberId(MemberHandle mbrHandle);
uint32_t checkedGroupId(GroupHandle grpHandle);

std::string profileRowKey(const Lattice::RowConstructor& constructor, uint32_t id);

using GroupMembers = std::vector<uint32_t>;  // row ids, a member as often as it weighs

// The members that the group's row holds; nothing when the group has no row. Refuses a row that
// cannot be read.
std::optional<GroupMembers> groupMembers(const P4TableInfo& tableInfo, const WritableTable& table,
                                         GroupHandle grpHandle);

}  // namespace P4Runtime
