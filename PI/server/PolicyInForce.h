// The policy that the process has: who may do what on its server. Thread-safe.
#pragma once

#include <cstdint>
#include <memory>

namespace Access {
struct Policy;
}

namespace pi::server {

bool hasPolicy();
// Null: none, everybody may do everything. Costs a load as long as there is none.
std::shared_ptr<const Access::Policy> policyInForce();
// For calls that come from here on.
void policyIs(std::shared_ptr<const Access::Policy> policy);
// Rises with each policyIs(), once the policy is in force.
uint64_t policyVersion();

}  // namespace pi::server
