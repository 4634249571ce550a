// The policy that the process has: who may do what on its server. Thread-safe.
#pragma once

#include <cstdint>
#include <memory>

namespace Access {
struct Policy;
}

namespace pi::server {

bool hasPolicy();
// Null without a policy: everybody may do everything then, and a call costs one load.
std::shared_ptr<const Access::Policy> policyInForce();
// For calls that come from here on.
void policyIs(std::shared_ptr<const Access::Policy> policy);
// Rises with each policyIs(), once the policy is in force.
uint64_t policyVersion();

}  // namespace pi::server
