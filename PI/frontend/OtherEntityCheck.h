// What is neither programmed nor read here is still checked, so that controllers hear of their own
// mistakes first.
#pragma once

#include "PI/frontend/P4InfoIndex.h"

namespace pi::fe::proto {

// Throw a Refusal: UNIMPLEMENTED, unless update or query is wrong in itself.
[[noreturn]] void refuseOtherUpdate(const P4InfoIndex& index, const p4::v1::Entity& entity,
                                    p4::v1::Update::Type type);
[[noreturn]] void refuseOtherQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
