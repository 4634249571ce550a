// Updates of entities that are no table entries: multicast groups, clone sessions, cells of
// counters, meters and registers, value sets and digests.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"

namespace pi::fe::proto {

// Checked against the P4Info and encoded for the target; hash left to the caller. Throws a Refusal.
CheckedUpdate checkedEntityUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                                  p4::v1::Update::Type type);

// The plan of the entity that an update or query names; null when it is not kept, or unknown.
const EntityPlan* entityPlan(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
