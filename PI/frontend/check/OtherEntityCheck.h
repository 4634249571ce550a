// Checks of entities that this front end neither programs nor reads, so that controllers hear of
// their own mistakes before they hear "unimplemented".
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"

namespace pi::fe::proto {

// Throws a Refusal: UNIMPLEMENTED, unless the update is wrong in itself, or deletes an entity that
// cannot exist (NOT_FOUND).
[[noreturn]] void refuseOtherUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                                    p4::v1::Update::Type type);
// Returns when an empty result is right, as for all entities of a kind; throws a Refusal otherwise,
// as above.
void checkOtherQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
