// Checks of entities that are no table entries: whether the P4Info has them, and the refusal of
// entities that the target does not keep.
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// An update that is malformed, or names no such object or cell. Throws a Refusal.
void checkOtherUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                      p4::v1::Update::Type type);
// Of an entity that is not kept: UNIMPLEMENTED, or NOT_FOUND for a DELETE.
[[noreturn]] void refuseOtherUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                                    p4::v1::Update::Type type);

// A query that is malformed, or names no such object or cell. Throws a Refusal.
void checkOtherQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);
// A query for all entities of a kind that is not kept finds none; any other is UNIMPLEMENTED.
void requireNothingAsked(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
