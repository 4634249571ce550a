// The objects that roles of a device keep to themselves or share, by the configs of their
// primaries.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "PI/server/RoleConfig.h"

namespace pi::server {

// Constant once it is made.
class RoleClaims {
 public:
  static constexpr size_t kMostIds = 16384;  // of all roles of a device

  struct Claim {
    std::string role;
    std::shared_ptr<const RoleConfig> config;
    std::string identity;  // of the primary whose config it is

    bool names(uint32_t id) const;
  };

  void claimIs(Claim claim);
  bool empty() const { return claims_.empty(); }
  size_t idCount() const { return exclusive_.size() + shared_.size(); }
  const Claim* of(const std::string& role) const;  // null: its config names no objects

  // The role that keeps the object to itself; null: no role does.
  const Claim* keeper(uint32_t id) const;
  // A role other than this one that shares the object; null: no role does.
  const Claim* sharer(uint32_t id, const std::string& otherThan) const;

 private:
  std::map<std::string, Claim> claims_;
  std::map<uint32_t, const Claim*> exclusive_;
  std::set<std::pair<uint32_t, const Claim*>> shared_;
};

}  // namespace pi::server
