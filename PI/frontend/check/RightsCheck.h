// Updates and queries against the rights of their caller.
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontends/proto/entity_rights.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// All throw a Refusal (PERMISSION_DENIED) that names the object. An entity without an object, or a
// query for all objects of a kind, passes.
void requireWriteRight(const P4InfoIndex& index, const EntityRights& rights,
                       const p4::v1::Entity& entity);
void requireReadRight(const P4InfoIndex& index, const EntityRights& rights,
                      const p4::v1::Entity& entity);
// Of an object by its id in the P4Info.
void requireWriteRight(const P4InfoIndex& index, const EntityRights& rights, uint32_t objectId);

EntityObject objectOf(const EntityPlan& plan);

// `rights` may be null: everything may be read then.
inline bool mayRead(const EntityRights* rights, const EntityObject& object) {
  return rights == nullptr || rights->permits(EntityUse::read, object);
}

}  // namespace pi::fe::proto
