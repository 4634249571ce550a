#include "PI/server/RoleClaims.h"

#include <algorithm>

namespace pi::server {

bool RoleClaims::Claim::names(uint32_t id) const {
  return std::ranges::binary_search(config->exclusiveIds, id) ||
         std::ranges::binary_search(config->sharedIds, id);
}

void RoleClaims::claimIs(Claim claim) {
  const std::string role = claim.role;
  const Claim& kept = claims_.insert_or_assign(role, std::move(claim)).first->second;
  for (const uint32_t id : kept.config->exclusiveIds) exclusive_[id] = &kept;
  for (const uint32_t id : kept.config->sharedIds) shared_.insert({id, &kept});
}

const RoleClaims::Claim* RoleClaims::of(const std::string& role) const {
  const auto found = claims_.find(role);
  return found == claims_.end() ? nullptr : &found->second;
}

const RoleClaims::Claim* RoleClaims::keeper(uint32_t id) const {
  const auto found = exclusive_.find(id);
  return found == exclusive_.end() ? nullptr : found->second;
}

const RoleClaims::Claim* RoleClaims::sharer(uint32_t id, const std::string& otherThan) const {
  for (auto at = shared_.lower_bound({id, nullptr}); at != shared_.end() && at->first == id; ++at) {
    if (at->second->role != otherThan) return at->second;
  }
  return nullptr;
}

}  // namespace pi::server
