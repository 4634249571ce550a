// The ids of the tables in which entities that are no table entries are kept.
#pragma once

#include <cstdint>

#include "PI/frontends/proto/entity_tables.h"

namespace pi::fe::proto {

enum class EntityKind : uint8_t {
  multicastGroup,
  cloneSession,
  counter,
  meter,
  registerArray,
  valueSet,
  digest,
  idleTimeout,  // of the entries of a table
  watchPort     // of the members in the groups of an action profile
};

// "multicast group", "counter".
const char* entityKindText(EntityKind kind);

// `id`: the object's in the P4Info, of idle time-outs the table's, of watch ports the profile's;
// groups and sessions are none, and have 0.
uint32_t entityTableId(EntityKind kind, uint32_t id = 0);
uint32_t entityListTableId(EntityKind kind, uint32_t id = 0);  // 0: the kind has none

// Bits of a digest's message; 0: it is not kept.
uint32_t digestBits(const p4::config::v1::P4Info& p4Info, const p4::config::v1::Digest& digest);

// Bits of a register's cell; 0: cells of this type are not kept.
int32_t registerBits(const p4::config::v1::Register& array);

}  // namespace pi::fe::proto
