#include "PI/server/Arbitration.h"

#include <utility>
#include <vector>

#include "PI/core/PlainText.h"

namespace pi::server {

using grpc::Status;
using grpc::StatusCode;

namespace {

std::string text(const ElectionId& id) {
  if (id.high == 0) return std::to_string(id.low);
  return "{high: " + std::to_string(id.high) + ", low: " + std::to_string(id.low) + "}";
}

constexpr size_t kShownBytes = 64;  // of a name in a message

std::string text(const RoleOfDevice& role) {
  return "role '" + core::plainText(role.role, kShownBytes) + "' on device " +
         std::to_string(role.deviceId);
}

std::string text(const std::optional<ElectionId>& id) {
  return id ? "election id " + text(*id) : "no election id";
}

Status notPrimary(const RoleOfDevice& role, const std::optional<ElectionId>& electionId,
                  const std::string& situation) {
  return Status(StatusCode::PERMISSION_DENIED,
                "not primary: " + text(electionId) + " of " + text(role) + "; " + situation);
}

Status requireNameLength(const RoleOfDevice& role) {
  if (role.role.size() <= Arbitration::kMaxRoleBytes) return Status::OK;
  return Status(StatusCode::INVALID_ARGUMENT,
                "the name of " + text(role) + " has " + std::to_string(role.role.size()) +
                    " bytes; use at most " + std::to_string(Arbitration::kMaxRoleBytes));
}

Status unknown(const RoleOfDevice& role) {
  return Status(StatusCode::NOT_FOUND,
                "unknown " + text(role) + "; name it in an arbitration update first");
}

}  // namespace

Arbitration::WritePermit::WritePermit(WritePermit&& other) noexcept
    : arbitration_(std::exchange(other.arbitration_, nullptr)), contest_(other.contest_) {}

Arbitration::WritePermit& Arbitration::WritePermit::operator=(WritePermit&& other) noexcept {
  std::swap(arbitration_, other.arbitration_);
  std::swap(contest_, other.contest_);
  return *this;
}

Arbitration::WritePermit::~WritePermit() {
  if (arbitration_) arbitration_->writeDone(*contest_);
}

void Arbitration::limitsAre(const Limits& limits) {
  const std::lock_guard lock(mutex_);
  limits_ = limits;
}

void Arbitration::highestIs(const RoleOfDevice& role, ElectionId highest) {
  const std::lock_guard lock(mutex_);
  const auto [place, added] = contests_.try_emplace(role);
  place->second.highest = highest;
  place->second.hasWritten = true;
  if (added && role.role.empty()) ++defaultRoles_;
}

Status Arbitration::clientIs(ArbitrationClient& client, const RoleOfDevice& role,
                             std::optional<ElectionId> electionId,
                             std::shared_ptr<const RoleConfig> config) {
  const std::lock_guard keeping(keeping_);
  bool rises = false;
  {
    const std::lock_guard lock(mutex_);
    Status admitted = admission(client, role, electionId);
    if (admitted.ok() && config) admitted = requireUnclaimed(role, *config);
    if (!admitted.ok()) return admitted;
    rises = raises(role, electionId);
  }
  // Meanwhile clients may go, but none comes: the update is still admissible.
  if (rises && keeper_.save) keeper_.save(role, *electionId);
  Forgotten forgotten;
  {
    const std::lock_guard lock(mutex_);
    enter(client, role, electionId, std::move(config), &forgotten);
  }
  if (forgotten && keeper_.forget) keeper_.forget(*forgotten);
  return Status::OK;
}

size_t Arbitration::forgetHighest() {
  const std::lock_guard keeping(keeping_);
  std::vector<RoleOfDevice> forgotten;
  {
    const std::lock_guard lock(mutex_);
    for (auto& [role, contest] : contests_) {
      if (contest.primary || !contest.highest || contest.runningWrites > 0) continue;
      contest.highest.reset();
      contest.hasWritten = false;
      configIs(role, contest, nullptr, "");
      forgotten.push_back(role);
    }
  }
  for (const RoleOfDevice& role : forgotten) {
    if (keeper_.forget) keeper_.forget(role);
  }
  return forgotten.size();
}

bool Arbitration::raises(const RoleOfDevice& role,
                         const std::optional<ElectionId>& electionId) const {
  const auto found = contests_.find(role);
  return electionId && (found == contests_.end() || found->second.highest < electionId);
}

Status Arbitration::admission(const ArbitrationClient& client, const RoleOfDevice& role,
                              const std::optional<ElectionId>& electionId) {
  const auto known = contestOf_.find(&client);
  if (known != contestOf_.end() && known->second->first != role) {
    return Status(StatusCode::FAILED_PRECONDITION, "this stream is for " +
                                                       text(known->second->first) +
                                                       "; open another one for " + text(role));
  }
  Status named = requireNameLength(role);
  if (!named.ok()) return named;
  const auto place = contests_.find(role);
  if (place == contests_.end()) {
    Status room = roomForRole(role);
    return room.ok() ? roomForClient(nullptr, role, electionId) : room;
  }
  for (const auto& [other, held] : place->second.clients) {
    if (other == &client || !electionId || held != electionId) continue;
    return Status(StatusCode::INVALID_ARGUMENT,
                  text(electionId) + " of " + text(role) +
                      " is used by another client; choose another election id");
  }
  if (known != contestOf_.end()) return Status::OK;
  return roomForClient(&place->second, role, electionId);
}

Status Arbitration::roomForRole(const RoleOfDevice& role) {
  const bool isDefault = role.role.empty();
  const size_t limit = isDefault ? kDevices : limits_.roles;
  const size_t used = isDefault ? defaultRoles_ : contests_.size() - defaultRoles_;
  if (used < limit || leastRecent(isDefault) != contests_.end()) return Status::OK;
  return Status(StatusCode::RESOURCE_EXHAUSTED,
                "no room for " + text(role) + ": " + std::to_string(limit) + " " +
                    (isDefault ? "devices" : "roles") + " are in use; use one of them");
}

Status Arbitration::roomForClient(const Contest* contest, const RoleOfDevice& role,
                                  const std::optional<ElectionId>& electionId) {
  if (contest && contest->clients.size() >= limits_.clientsOfRole) {
    ArbitrationClient* const lowest = lowestBackup(*contest);
    if (lowest && contest->clients.at(lowest) < electionId) return Status::OK;
    return Status(StatusCode::RESOURCE_EXHAUSTED,
                  text(role) + " has " + std::to_string(limits_.clientsOfRole) +
                      " streams, which is the limit; close one, or come with a higher election id "
                      "than one of them");
  }
  if (contestOf_.size() < limits_.clients) return Status::OK;
  const bool becomesPrimary = electionId && (!contest || contest->highest <= electionId);
  const bool isFirstOfDefault = role.role.empty() && (!contest || contest->clients.empty());
  if (becomesPrimary && (fullest() || isFirstOfDefault)) return Status::OK;
  return Status(StatusCode::RESOURCE_EXHAUSTED,
                "the server has " + std::to_string(limits_.clients) +
                    " controllers' streams, which is the limit; close one first");
}

// The contest without clients that lost its last client first; of default roles only contests of
// devices that never took a Write.
Arbitration::Contests::iterator Arbitration::leastRecent(bool ofDefaultRoles) {
  auto found = contests_.end();
  for (auto one = contests_.begin(); one != contests_.end(); ++one) {
    const Contest& contest = one->second;
    if (one->first.role.empty() != ofDefaultRoles) continue;
    if (ofDefaultRoles && contest.hasWritten) continue;
    if (!contest.clients.empty() || contest.runningWrites > 0) continue;
    if (found == contests_.end() || contest.leftAt < found->second.leftAt) found = one;
  }
  return found;
}

// Of the contests that have a backup, the one with the most clients; null: no contest has one.
Arbitration::Contest* Arbitration::fullest() {
  Contest* found = nullptr;
  for (auto& [role, contest] : contests_) {
    if (!lowestBackup(contest)) continue;
    if (!found || contest.clients.size() > found->clients.size()) found = &contest;
  }
  return found;
}

ArbitrationClient* Arbitration::lowestBackup(const Contest& contest) {
  const std::pair<ArbitrationClient* const, std::optional<ElectionId>>* lowest = nullptr;
  for (const auto& one : contest.clients) {
    if (one.first == contest.primary) continue;
    if (!lowest || one.second < lowest->second) lowest = &one;
  }
  return lowest ? lowest->first : nullptr;
}

void Arbitration::makeRoom(const RoleOfDevice& role, Forgotten* forgotten) {
  const bool isDefault = role.role.empty();
  const size_t used = isDefault ? defaultRoles_ : contests_.size() - defaultRoles_;
  if (used < (isDefault ? kDevices : limits_.roles)) return;
  const auto gone = leastRecent(isDefault);
  if (gone == contests_.end()) return;
  *forgotten = gone->first;
  configIs(gone->first, gone->second, nullptr, "");
  contests_.erase(gone);
  if (isDefault) --defaultRoles_;
}

void Arbitration::displace(Contest& contest, const std::string& reason) {
  ArbitrationClient* const lowest = lowestBackup(contest);
  if (!lowest) return;
  contest.clients.erase(lowest);
  contestOf_.erase(lowest);
  lowest->displaced(reason);
}

// The client has been admitted.
void Arbitration::enter(ArbitrationClient& client, const RoleOfDevice& role,
                        const std::optional<ElectionId>& electionId,
                        std::shared_ptr<const RoleConfig> config, Forgotten* forgotten) {
  auto place = contests_.find(role);
  if (place == contests_.end()) {
    makeRoom(role, forgotten);
    place = contests_.try_emplace(role).first;
    if (role.role.empty()) ++defaultRoles_;
  }
  Contest& contest = place->second;
  if (!contestOf_.count(&client)) {
    const std::string reason = "the limit of streams is reached, and a client of " + text(role) +
                               " with " + text(electionId) + " took the place of this one";
    if (contest.clients.size() >= limits_.clientsOfRole) displace(contest, reason);
    if (contestOf_.size() >= limits_.clients) {
      if (Contest* const full = fullest()) displace(*full, reason);
    }
  }
  contestOf_[&client] = place;
  contest.clients[&client] = electionId;
  if (electionId && contest.highest <= electionId) {
    configIs(role, contest, std::move(config), client.identity());
    elect(contest, client, *electionId);
  } else {
    backUp(contest, client);
  }
}

// The new primary hears of it last, once nobody else's Write can still take effect.
void Arbitration::elect(Contest& contest, ArbitrationClient& client, ElectionId electionId) {
  contest.highest = electionId;
  contest.told = contest.told && contest.primary == &client;
  if (contest.primary != &client) contest.primarySince = std::chrono::system_clock::now();
  contest.primary = &client;
  contest.installed = false;
  notifyOthers(contest, &client);
  if (contest.runningWrites == 0) installPrimary(contest);  // else writeDone() does
}

void Arbitration::backUp(Contest& contest, ArbitrationClient& client) {
  if (contest.primary != &client) {
    notify(contest, client);
    return;
  }
  dethrone(contest);
}

// The server knows no pipeline yet, perhaps: an id that is in none harms nobody.
Status Arbitration::requireUnclaimed(const RoleOfDevice& role, const RoleConfig& config) const {
  const auto device = claims_.find(role.deviceId);
  if (device == claims_.end()) return Status::OK;
  const RoleClaims& claims = *device->second;
  const auto* const own = claims.of(role.role);
  const size_t others =
      claims.idCount() -
      (own ? own->config->exclusiveIds.size() + own->config->sharedIds.size() : 0);
  if (others + config.exclusiveIds.size() + config.sharedIds.size() > RoleClaims::kMostIds) {
    return Status(StatusCode::RESOURCE_EXHAUSTED,
                  "the configs of the roles on device " + std::to_string(role.deviceId) +
                      " name more than " + std::to_string(RoleClaims::kMostIds) + " objects");
  }
  const auto refused = [&](uint32_t id, const RoleClaims::Claim& other, const char* does) {
    return Status(StatusCode::INVALID_ARGUMENT,
                  "the config of " + text(role) + " names the object " + std::to_string(id) +
                      ", which role '" + core::plainText(other.role, kShownBytes) + "' " + does +
                      "; leave it out");
  };
  for (const auto* ids : {&config.exclusiveIds, &config.sharedIds}) {
    for (const uint32_t id : *ids) {
      const auto* other = claims.keeper(id);
      if (other && other->role != role.role) return refused(id, *other, "keeps to itself");
    }
  }
  for (const uint32_t id : config.exclusiveIds) {
    const auto* other = claims.sharer(id, role.role);
    if (other) return refused(id, *other, "shares");
  }
  return Status::OK;
}

void Arbitration::configIs(const RoleOfDevice& role, Contest& contest,
                           std::shared_ptr<const RoleConfig> config, const std::string& identity) {
  const bool claims =
      (contest.config && contest.config->namesObjects()) || (config && config->namesObjects());
  contest.config = std::move(config);
  contest.configFrom = identity;
  if (claims) updateClaims(role.deviceId);
}

void Arbitration::updateClaims(uint64_t deviceId) {
  auto claims = std::make_shared<RoleClaims>();
  for (auto one = contests_.lower_bound({deviceId, ""});
       one != contests_.end() && one->first.deviceId == deviceId; ++one) {
    const Contest& contest = one->second;
    if (!contest.config || !contest.config->namesObjects()) continue;
    claims->claimIs({one->first.role, contest.config, contest.configFrom});
  }
  const std::lock_guard lock(claimsMutex_);
  if (claims->empty()) {
    claims_.erase(deviceId);
  } else {
    claims_[deviceId] = std::move(claims);
  }
  anyClaims_.store(!claims_.empty(), std::memory_order_release);
  claimsVersion_.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<const RoleClaims> Arbitration::claims(uint64_t deviceId) const {
  if (!anyClaims()) return nullptr;
  const std::lock_guard lock(claimsMutex_);
  const auto found = claims_.find(deviceId);
  return found == claims_.end() ? nullptr : found->second;
}

void Arbitration::clientDel(ArbitrationClient& client) {
  const std::lock_guard lock(mutex_);
  const auto known = contestOf_.find(&client);
  if (known == contestOf_.end()) return;
  const auto role = known->second;
  Contest& contest = role->second;
  contestOf_.erase(known);
  contest.clients.erase(&client);
  if (contest.primary == &client) dethrone(contest);
  contest.leftAt = ++leaves_;
  // A role that nobody ever was primary of leaves nothing to remember.
  if (contest.clients.empty() && !contest.highest) {
    if (role->first.role.empty()) --defaultRoles_;
    contests_.erase(role);
  }
}

void Arbitration::dethrone(Contest& contest) {
  contest.primary = nullptr;
  contest.installed = false;
  contest.told = false;
  notifyOthers(contest, nullptr);
}

void Arbitration::installPrimary(Contest& contest) {
  contest.installed = true;
  contest.told = true;
  notify(contest, *contest.primary);
  installed_.notify_all();
}

void Arbitration::notifyOthers(const Contest& contest, const ArbitrationClient* except) {
  for (const auto& [client, electionId] : contest.clients) {
    if (client != except) notify(contest, *client);
  }
}

void Arbitration::notify(const Contest& contest, ArbitrationClient& client) {
  ArbitrationNotice notice{
      .code = StatusCode::NOT_FOUND, .highest = contest.highest, .config = contest.config};
  if (contest.primary) {
    notice.code = contest.primary == &client ? StatusCode::OK : StatusCode::ALREADY_EXISTS;
  }
  client.arbitrationNoticeIs(notice);
}

Status Arbitration::requireRole(const RoleOfDevice& role) const {
  Status named = requireNameLength(role);
  if (!named.ok()) return named;
  const std::lock_guard lock(mutex_);
  return role.role.empty() || contests_.count(role) ? Status::OK : unknown(role);
}

Status Arbitration::permission(const RoleOfDevice& role,
                               const std::optional<ElectionId>& electionId,
                               const std::string* identity, Contest** contest) {
  Status named = requireNameLength(role);
  if (!named.ok()) return named;
  const auto found = contests_.find(role);
  if (found == contests_.end()) {
    return role.role.empty() ? notPrimary(role, electionId, "there is no primary") : unknown(role);
  }
  Contest& here = found->second;
  if (!here.primary) {
    if (!here.highest) return notPrimary(role, electionId, "there is no primary");
    return notPrimary(role, electionId,
                      "there is no primary; an arbitration update with " + text(*here.highest) +
                          " or higher makes one");
  }
  if (electionId != here.highest) {
    return notPrimary(role, electionId, "the primary has " + text(*here.highest));
  }
  if (identity && here.primary->identity() != *identity) {
    return notPrimary(role, electionId,
                      "the primary is not '" + core::plainText(*identity, kShownBytes) +
                          "', though it knows the election id");
  }
  if (!here.installed) {
    return notPrimary(role, electionId,
                      "it is about to be, once running writes are done; wait for the notice");
  }
  *contest = &here;
  return Status::OK;
}

Status Arbitration::requirePrimary(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                                   const std::string* identity) {
  const std::lock_guard lock(mutex_);
  Contest* contest = nullptr;
  return permission(role, electionId, identity, &contest);
}

Status Arbitration::requirePusher(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                                  std::chrono::milliseconds patience, const std::string* identity) {
  std::unique_lock lock(mutex_);
  Status status;
  installed_.wait_for(lock, patience, [&] {
    status = pushPermission(role, electionId, identity);
    return status.ok() || !mayBecomePrimary(role, electionId);
  });
  return status;
}

Status Arbitration::pushPermission(const RoleOfDevice& role,
                                   const std::optional<ElectionId>& electionId,
                                   const std::string* identity) {
  Contest* contest = nullptr;
  Status primary = permission(role, electionId, identity, &contest);
  if (!primary.ok() || !contest->config || contest->config->canPushPipeline) return primary;
  return Status(StatusCode::PERMISSION_DENIED,
                text(role) + " may not push a pipeline; its config lacks can_push_pipeline");
}

bool Arbitration::mayBecomePrimary(const RoleOfDevice& role,
                                   const std::optional<ElectionId>& electionId) const {
  if (!electionId || !requireNameLength(role).ok()) return false;
  const auto found = contests_.find(role);
  if (found == contests_.end()) return true;
  const Contest& contest = found->second;
  const bool isPrimary = contest.primary && contest.installed && contest.highest == electionId;
  return !isPrimary && contest.highest <= electionId;
}

Status Arbitration::writePermit(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                                WritePermit* permit, const std::string* identity) {
  WritePermit former;  // the former *permit, given back outside the lock
  {
    const std::lock_guard lock(mutex_);
    Contest* contest = nullptr;
    Status status = permission(role, electionId, identity, &contest);
    if (!status.ok()) return status;
    ++contest->runningWrites;
    contest->hasWritten = true;
    former = std::exchange(*permit, WritePermit(this, contest));
  }
  return Status::OK;
}

Status Arbitration::requireHighest(const RoleOfDevice& role,
                                   std::optional<ElectionId> electionId) const {
  const std::lock_guard lock(mutex_);
  const auto found = contests_.find(role);
  if (found != contests_.end() && found->second.highest == electionId) return Status::OK;
  return notPrimary(role, electionId, "a higher election id came while this Write waited");
}

void Arbitration::writeDone(Contest& contest) {
  const std::lock_guard lock(mutex_);
  --contest.runningWrites;
  if (contest.runningWrites == 0 && contest.primary && !contest.installed) installPrimary(contest);
}

bool Arbitration::isPrimary(const ArbitrationClient& client) const {
  const std::lock_guard lock(mutex_);
  const auto known = contestOf_.find(&client);
  if (known == contestOf_.end()) return false;
  const Contest& contest = known->second->second;
  return contest.primary == &client && contest.told;
}

void Arbitration::forEachPrimary(uint64_t deviceId, const Visit& visit) {
  const std::lock_guard lock(mutex_);
  for (auto role = contests_.lower_bound({deviceId, ""});
       role != contests_.end() && role->first.deviceId == deviceId; ++role) {
    if (!role->second.primary || !role->second.told) continue;
    visit(*role->second.primary, role->second.config.get());
  }
}

Arbitration& TheArbitration() {
  static Arbitration* const arbitration =
      new Arbitration;  // streams may outlive static destruction
  return *arbitration;
}

}  // namespace pi::server
