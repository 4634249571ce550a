#include "P4Runtime/table/rows/ProfileRows.h"

#include <fmt/format.h>

#include <cassert>
#include <cstring>

#include "P4Runtime/table/rows/Refuse.h"

namespace P4Runtime {

uint32_t checkedMemberId(MemberHandle mbrHandle) {
  assert(mbrHandle >> 32 == 0);
  const auto memberId = static_cast<uint32_t>(mbrHandle);
  assert(memberId > 0);
  return memberId;
}

uint32_t checkedGroupId(GroupHandle grpHandle) {
  assert(grpHandle >> 32 == 1);
  const auto groupId = static_cast<uint32_t>(grpHandle);
  assert(groupId > 0);
  return groupId;
}

std::string profileRowKey(const Lattice::RowConstructor& constructor, uint32_t id) {
  const auto* field = reinterpret_cast<const uint8_t*>(&id);
  return constructor.constructKey({&field, 1});
}

// The row's value is one array of 32-bit ids; the agreement of types was checked when the pipeline
// came up.
std::optional<GroupMembers> groupMembers(const P4TableInfo& tableInfo, const WritableTable& table,
                                         GroupHandle grpHandle) {
  const uint32_t groupId = checkedGroupId(grpHandle);
  const auto row = table.interface.row(profileRowKey(table.constructor, groupId));
  if (!row) return std::nullopt;
  uint32_t count = 0;
  if (row->value.size() >= sizeof count) std::memcpy(&count, row->value.data(), sizeof count);
  if (row->value.size() != sizeof count + size_t{count} * sizeof(uint32_t)) {
    refuse(ErrorCode::inconsistentState, fmt::format("group id {} of {}: its row cannot be read",
                                                     groupId, tableInfo.nameOf(table.rid)));
  }
  GroupMembers members(count);
  if (count == 0) return members;  // without memory to copy to
  std::memcpy(members.data(), row->value.data() + sizeof count, count * sizeof(uint32_t));
  return members;
}

}  // namespace P4Runtime
