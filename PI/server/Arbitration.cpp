#include "PI/server/Arbitration.h"

#include <utility>

namespace pi::server {

using grpc::Status;
using grpc::StatusCode;

namespace {

std::string text(const ElectionId& id) {
  if (id.high == 0) return std::to_string(id.low);
  return "{high: " + std::to_string(id.high) + ", low: " + std::to_string(id.low) + "}";
}

std::string text(const RoleOfDevice& role) {
  return "role '" + role.role + "' on device " + std::to_string(role.deviceId);
}

std::string text(const std::optional<ElectionId>& id) {
  return id ? "election id " + text(*id) : "no election id";
}

Status notPrimary(const RoleOfDevice& role, const std::optional<ElectionId>& electionId,
                  const std::string& situation) {
  return Status(StatusCode::PERMISSION_DENIED,
                "not primary: " + text(electionId) + " of " + text(role) + "; " + situation);
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

Status Arbitration::clientIs(ArbitrationClient& client, const RoleOfDevice& role,
                             std::optional<ElectionId> electionId) {
  const std::lock_guard lock(mutex_);
  Contests::iterator place;
  const Status admitted = contestFor(client, role, &place);
  if (!admitted.ok()) return admitted;
  Contest& contest = place->second;
  for (const auto& [other, held] : contest.clients) {
    if (other == &client || !electionId || held != electionId) continue;
    return Status(StatusCode::INVALID_ARGUMENT,
                  text(electionId) + " of " + text(role) +
                      " is held by another client; choose another election id");
  }
  contestOf_[&client] = place;
  contest.clients[&client] = electionId;
  if (electionId && (!contest.highest || *electionId >= *contest.highest)) {
    elect(contest, client, *electionId);
  } else {
    backUp(contest, client);
  }
  return Status::OK;
}

// Where the client is, or where it may come in.
Status Arbitration::contestFor(const ArbitrationClient& client, const RoleOfDevice& role,
                               Contests::iterator* contest) {
  const auto known = contestOf_.find(&client);
  if (known != contestOf_.end()) {
    *contest = known->second;
    if ((*contest)->first == role) return Status::OK;
    return Status(StatusCode::FAILED_PRECONDITION, "this stream is for " + text((*contest)->first) +
                                                       "; open another one for " + text(role));
  }
  *contest = contests_.find(role);
  if (*contest == contests_.end()) {
    if (contests_.size() >= limits_.roles) {
      return Status(StatusCode::RESOURCE_EXHAUSTED, "no room for " + text(role) + ": " +
                                                        std::to_string(limits_.roles) +
                                                        " roles are in use; use one of them");
    }
    *contest = contests_.try_emplace(role).first;
  }
  if ((*contest)->second.clients.size() >= limits_.clientsOfRole) {
    return Status(StatusCode::RESOURCE_EXHAUSTED,
                  text(role) + " has " + std::to_string(limits_.clientsOfRole) +
                      " streams, which is the limit; close one first");
  }
  return Status::OK;
}

// The new primary hears of it last, once nobody else's Write can still take effect.
void Arbitration::elect(Contest& contest, ArbitrationClient& client, ElectionId electionId) {
  contest.highest = electionId;
  contest.told = contest.told && contest.primary == &client;
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

void Arbitration::clientDel(ArbitrationClient& client) {
  const std::lock_guard lock(mutex_);
  const auto known = contestOf_.find(&client);
  if (known == contestOf_.end()) return;
  const auto role = known->second;
  Contest& contest = role->second;
  contestOf_.erase(known);
  contest.clients.erase(&client);
  if (contest.primary == &client) dethrone(contest);
  // A role that nobody ever was primary of leaves nothing to remember.
  if (contest.clients.empty() && !contest.highest) contests_.erase(role);
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
}

void Arbitration::notifyOthers(const Contest& contest, const ArbitrationClient* except) {
  for (const auto& [client, electionId] : contest.clients) {
    if (client != except) notify(contest, *client);
  }
}

void Arbitration::notify(const Contest& contest, ArbitrationClient& client) {
  ArbitrationNotice notice{.code = StatusCode::NOT_FOUND, .highest = contest.highest};
  if (contest.primary) {
    notice.code = contest.primary == &client ? StatusCode::OK : StatusCode::ALREADY_EXISTS;
  }
  client.arbitrationNoticeIs(notice);
}

Status Arbitration::requireRole(const RoleOfDevice& role) const {
  const std::lock_guard lock(mutex_);
  if (role.role.empty() || contests_.count(role)) return Status::OK;
  return Status(StatusCode::NOT_FOUND,
                "unknown " + text(role) + "; name it in an arbitration update first");
}

Status Arbitration::permission(const RoleOfDevice& role,
                               const std::optional<ElectionId>& electionId, Contest** contest) {
  const auto found = contests_.find(role);
  if (found == contests_.end()) {
    if (role.role.empty()) return notPrimary(role, electionId, "there is no primary");
    return Status(StatusCode::NOT_FOUND,
                  "unknown " + text(role) + "; name it in an arbitration update first");
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
  if (!here.installed) {
    return notPrimary(role, electionId,
                      "it is about to be, once running writes are done; wait for the notice");
  }
  *contest = &here;
  return Status::OK;
}

Status Arbitration::requirePrimary(const RoleOfDevice& role, std::optional<ElectionId> electionId) {
  const std::lock_guard lock(mutex_);
  Contest* contest = nullptr;
  return permission(role, electionId, &contest);
}

Status Arbitration::writePermit(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                                WritePermit* permit) {
  WritePermit former;  // what *permit held is given back outside the lock
  {
    const std::lock_guard lock(mutex_);
    Contest* contest = nullptr;
    const Status status = permission(role, electionId, &contest);
    if (!status.ok()) return status;
    ++contest->runningWrites;
    former = std::exchange(*permit, WritePermit(this, contest));
  }
  return Status::OK;
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

void Arbitration::forEachPrimary(uint64_t deviceId,
                                 const std::function<void(ArbitrationClient&)>& visit) {
  const std::lock_guard lock(mutex_);
  for (auto role = contests_.lower_bound({deviceId, ""});
       role != contests_.end() && role->first.deviceId == deviceId; ++role) {
    if (role->second.primary && role->second.told) visit(*role->second.primary);
  }
}

Arbitration& TheArbitration() {
  static Arbitration* const arbitration =
      new Arbitration;  // streams may outlive static destruction
  return *arbitration;
}

}  // namespace pi::server
