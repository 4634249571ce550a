// What the caller of one call, or of one stream, may do: by the policy in force, and by what the
// configs of roles leave to its role. Without a policy and such configs there is no such object,
// and everything is permitted.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <grpcpp/support/status.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "PI/frontends/proto/entity_rights.h"
#include "PI/server/Arbitration.h"
#include "PI/server/Peer.h"
#include "PI/server/PolicyInForce.h"
#include "access/Policy.h"

namespace pi::server {

// The decisions on entities that were made for callers, kept for their next calls. Thread-safe.
class RightsCache {
 public:
  using Rights = std::shared_ptr<const fe::proto::EntityRights>;
  struct Key {
    // Decisions of another time are dropped.
    std::tuple<uint64_t, uint64_t, uint64_t> time;  // pipeline, policy, claims
    // device, role, identity, whether the configs of roles count
    std::tuple<uint64_t, std::optional<std::string>, std::string, bool> caller;
  };

  Rights find(const Key& key);  // null: not there
  void insert(const Key& key, Rights rights);

 private:
  static constexpr size_t kMost = 1024;

  void maybeDrop(const Key& key);

  std::mutex mutex_;  // guards the members below
  decltype(Key::time) time_;
  absl::flat_hash_map<decltype(Key::caller), Rights> rights_;
};

// Belongs to its call. Constant once it has its role.
class CallerAccess final : public fe::proto::EntityCaller {
 public:
  using Operation = Access::Operation;

  // Null when the caller may do everything. `peer` is only asked for otherwise.
  template <typename PeerOf>
  static std::unique_ptr<CallerAccess> make(const Arbitration& arbitration, RightsCache& cache,
                                            PeerOf peerOf) {
    const uint64_t version = policyVersion();
    auto policy = policyInForce();
    if (!policy && !arbitration.anyClaims()) return nullptr;
    const Peer peer = peerOf();
    if (peer.way == Peer::Way::ownProcess) return nullptr;
    return std::make_unique<CallerAccess>(arbitration, cache, std::move(policy), version,
                                          peer.identity);
  }
  CallerAccess(const Arbitration& arbitration, RightsCache& cache,
               std::shared_ptr<const Access::Policy> policy, uint64_t policyVersion,
               std::string identity);

  // All return PERMISSION_DENIED with a message that names identity and role. A call is asked about
  // twice: before it is parsed, and once its role is known.
  grpc::Status requireCall(std::string_view path) const;
  // Before the functions below. No role: a Read in all roles of its caller.
  void roleIs(uint64_t deviceId, std::optional<std::string> role);
  // The same caller in its role, as the policy alone has it: no config of a role counts.
  CallerAccess byPolicyAlone() const;
  grpc::Status requireContest(bool takesPart) const;  // else it watches the role's election
  grpc::Status require(Operation operation) const;    // push, packet out, packet in
  bool permits(Operation operation) const;

  // To be compared with the primary's; null without a policy.
  const std::string* identity() const { return policy_ ? &identity_ : nullptr; }
  // False once the policy, or the claims of roles, have changed since it was made.
  bool isUpToDate() const;

  std::shared_ptr<const fe::proto::EntityRights> rights(
      uint64_t pipeline, const p4::config::v1::P4Info& p4Info) const override;

 private:
  Access::Question question(Access::Question::Kind kind) const;
  grpc::Status denied(const std::string& what) const;
  bool takes(Operation operation, const Access::Object& object) const;
  bool isLeftBy(const RoleClaims& claims, const Access::Object& object) const;

  const Arbitration& arbitration_;
  RightsCache& cache_;
  const std::shared_ptr<const Access::Policy> policy_;  // null: none
  const uint64_t policyVersion_;
  const uint64_t claimsVersion_;
  const std::string identity_;
  uint64_t deviceId_ = 0;
  std::optional<std::string> role_;
  std::shared_ptr<const RoleClaims> claims_;  // null: no role of the device keeps anything
};

}  // namespace pi::server
