#include "PI/server/CallerAccess.h"

#include <utility>
#include <vector>

#include "PI/core/PlainText.h"
#include "access/EntityTable.h"
#include "access/Objects.h"

namespace pi::server {

using Access::Object;
using Access::Question;
using fe::proto::EntityObject;
using fe::proto::EntityRights;
using fe::proto::EntityUse;
using grpc::Status;
using grpc::StatusCode;

namespace {

constexpr size_t kShownBytes = 64;  // of a name in a message

std::string quoted(const std::string& name) {
  return "'" + core::plainText(name, kShownBytes) + "'";
}

std::string identityText(const std::string& identity) {
  return identity.empty() ? "a caller without an identity" : quoted(identity);
}

// " in role 'acl'".
std::string inRoleText(const std::optional<std::string>& role) {
  if (!role) return "";
  return role->empty() ? " in the default role" : " in role " + quoted(*role);
}

const char* operationText(Access::Operation operation) {
  switch (operation) {
    case Access::Operation::push:
      return "push a pipeline";
    case Access::Operation::packetOut:
      return "send packets";
    case Access::Operation::packetIn:
      return "get packets";
    case Access::Operation::write:
      return "write";
    case Access::Operation::read:
      return "read";
  }
  return "do this";
}

class Rights final : public EntityRights {
 public:
  Rights(Access::EntityTable table, std::string who)
      : table_(std::move(table)), who_(std::move(who)) {}

  bool permits(EntityUse use, const EntityObject& object) const override {
    const auto operation =
        use == EntityUse::write ? Access::Operation::write : Access::Operation::read;
    switch (object.kind) {
      case EntityObject::Kind::multicastGroups:
        return table_.takesMulticastGroups(operation);
      case EntityObject::Kind::cloneSessions:
        return table_.takesCloneSessions(operation);
      default:
        return table_.takes(operation, object.id);
    }
  }
  std::string refusal(EntityUse use, const EntityObject&, std::string_view text) const override {
    std::string message(text);
    return message +
           (use == EntityUse::write ? ": not to be written by " : ": not to be read by ") + who_;
  }

 private:
  const Access::EntityTable table_;
  const std::string who_;  // "'spiffe://a/b' in role 'acl'"
};

}  // namespace

void RightsCache::maybeDrop(const Key& key) {
  if (time_ == key.time && rights_.size() < kMost) return;
  rights_.clear();
  time_ = key.time;
}

RightsCache::Rights RightsCache::find(const Key& key) {
  const std::lock_guard lock(mutex_);
  if (time_ != key.time) return nullptr;
  const auto found = rights_.find(key.caller);
  return found == rights_.end() ? nullptr : found->second;
}

void RightsCache::insert(const Key& key, Rights rights) {
  const std::lock_guard lock(mutex_);
  maybeDrop(key);
  rights_[key.caller] = std::move(rights);
}

CallerAccess::CallerAccess(const Arbitration& arbitration, RightsCache& cache,
                           std::shared_ptr<const Access::Policy> policy, uint64_t policyVersion,
                           std::string identity)
    : arbitration_(arbitration),
      cache_(cache),
      policy_(std::move(policy)),
      policyVersion_(policyVersion),
      claimsVersion_(arbitration.claimsVersion()),
      identity_(std::move(identity)) {}

void CallerAccess::roleIs(uint64_t deviceId, std::optional<std::string> role) {
  deviceId_ = deviceId;
  role_ = std::move(role);
  claims_ = arbitration_.claims(deviceId);
}

CallerAccess CallerAccess::byPolicyAlone() const {
  CallerAccess made(*this);
  made.claims_ = nullptr;
  return made;
}

bool CallerAccess::isUpToDate() const {
  return policyVersion_ == policyVersion() && claimsVersion_ == arbitration_.claimsVersion();
}

Question CallerAccess::question(Question::Kind kind) const {
  Question question;
  question.kind = kind;
  question.identity = identity_;
  if (role_) question.role = *role_;
  return question;
}

Status CallerAccess::denied(const std::string& what) const {
  return Status(StatusCode::PERMISSION_DENIED,
                identityText(identity_) + " may not " + what + inRoleText(role_));
}

Status CallerAccess::requireCall(std::string_view path) const {
  if (!policy_) return Status::OK;
  Question asked = question(Question::Kind::call);
  asked.path = path;
  if (policy_->allows(asked)) return Status::OK;
  return denied("call " + std::string(path.substr(path.rfind('/') + 1)));
}

Status CallerAccess::requireContest(bool takesPart) const {
  if (!policy_) return Status::OK;
  if (!policy_->allows(question(Question::Kind::claim))) return denied("have a stream");
  if (!takesPart || policy_->allows(question(Question::Kind::contest))) return Status::OK;
  return denied("take part in the election; leave the election id out");
}

bool CallerAccess::permits(Operation operation) const {
  if (!policy_) return true;
  Question asked = question(Question::Kind::operation);
  asked.operation = operation;
  return policy_->allows(asked);
}

Status CallerAccess::require(Operation operation) const {
  return permits(operation) ? Status::OK : denied(operationText(operation));
}

// Whether the configs of roles leave the object to the caller's role.
bool CallerAccess::isLeftBy(const RoleClaims& claims, const Object& object) const {
  if (object.kind == Access::ObjectKind::replication) return true;
  if (role_ && role_->empty()) return true;  // the default role has the whole pipeline
  const RoleClaims::Claim* const own = role_ ? claims.of(*role_) : nullptr;
  if (own) return own->names(object.id);
  const RoleClaims::Claim* const keeper = claims.keeper(object.id);
  if (!keeper) return true;
  if (!policy_) return !role_;
  // A role keeps only objects that its primary may write.
  Question keeps{Question::Kind::operation, keeper->identity, {}, keeper->role,
                 Operation::write,          &object};
  if (!policy_->allows(keeps)) return true;
  if (role_) return false;
  Question claim = question(Question::Kind::claim);
  for (const std::string_view role : {std::string_view(), std::string_view(keeper->role)}) {
    claim.role = role;
    if (policy_->allows(claim)) return true;
  }
  return false;
}

bool CallerAccess::takes(Operation operation, const Object& object) const {
  if (claims_ && !isLeftBy(*claims_, object)) return false;
  if (!policy_) return true;
  Question asked = question(Question::Kind::operation);
  asked.operation = operation;
  asked.object = &object;
  return policy_->allows(asked);
}

std::shared_ptr<const EntityRights> CallerAccess::rights(
    uint64_t pipeline, const p4::config::v1::P4Info& p4Info) const {
  const RightsCache::Key key{{pipeline, policyVersion_, claimsVersion_},
                             {deviceId_, role_, policy_ ? identity_ : "", claims_ != nullptr}};
  if (auto known = cache_.find(key)) return known;
  const std::vector<Object> objects = Access::objectsOf(p4Info);
  auto made = std::make_shared<const Rights>(
      Access::EntityTable(
          objects,
          [this](Operation operation, const Object& object) { return takes(operation, object); }),
      (policy_ ? identityText(identity_) : std::string("a controller")) + inRoleText(role_));
  cache_.insert(key, made);
  return made;
}

}  // namespace pi::server
