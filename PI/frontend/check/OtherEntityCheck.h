// What is neither programmed nor read here is still checked, so that controllers hear of their own
// mistakes first.
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"

namespace pi::fe::proto {

// Throws a Refusal: UNIMPLEMENTED, unless the update is wrong in itself, or deletes what cannot be
// there (NOT_FOUND).
[[noreturn]] void refuseOtherUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                                    p4::v1::Update::Type type);
// Returns when the answer is right without any entity, as for all of a kind; throws a Refusal
// otherwise, as above.
void checkOtherQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
