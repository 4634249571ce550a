// Names for what a controller may ask for, in its own words.
#pragma once

#include <string>

#include "PI/frontend/P4InfoIndex.h"

namespace pi::fe::proto {

// Of an entity that is neither programmed nor read: "counter ingress.hits", "multicast group 7". Of
// one without a member: empty.
std::string entityText(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
