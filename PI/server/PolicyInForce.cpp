#include "PI/server/PolicyInForce.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "access/Policy.h"

namespace pi::server {

namespace {

struct InForce {
  std::mutex mutex;  // guards policy
  std::shared_ptr<const Access::Policy> policy;
  std::atomic<bool> any{false};
  std::atomic<uint64_t> version{0};
};

InForce& TheInForce() {
  static InForce* const inForce = new InForce;  // calls may outlive static destruction
  return *inForce;
}

}  // namespace

bool hasPolicy() { return TheInForce().any.load(std::memory_order_acquire); }

std::shared_ptr<const Access::Policy> policyInForce() {
  InForce& inForce = TheInForce();
  if (!hasPolicy()) return nullptr;
  const std::lock_guard lock(inForce.mutex);
  return inForce.policy;
}

void policyIs(std::shared_ptr<const Access::Policy> policy) {
  InForce& inForce = TheInForce();
  const std::lock_guard lock(inForce.mutex);
  inForce.policy = std::move(policy);
  inForce.any.store(inForce.policy != nullptr, std::memory_order_release);
  inForce.version.fetch_add(1, std::memory_order_release);
}

uint64_t policyVersion() { return TheInForce().version.load(std::memory_order_acquire); }

}  // namespace pi::server
