#include "P4Runtime/agent/ElectionIds.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "PI/proto/pi_server.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ElectionIds");

constexpr char tableName[] = "agent/electionId";
constexpr size_t numberSize = 8;
constexpr size_t longestRoleShown = 64;

std::string bigEndian(uint64_t number) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

uint64_t numberAt(Brine::Bytes bytes, size_t at, bool isBigEndian) {
  uint64_t number = 0;
  for (size_t i = 0; i < numberSize; ++i) {
    const size_t byte = isBigEndian ? i : numberSize - 1 - i;
    number = number << 8 | bytes[at + byte];
  }
  return number;
}

std::string littleEndian(uint64_t number) {
  const std::string bytes = bigEndian(number);
  return {bytes.rbegin(), bytes.rend()};
}

}  // namespace

std::string electionIdKey(const RoleKey& role) { return bigEndian(role.deviceId) + role.role; }

std::string electionIdValue(const ElectionNumber& id) {
  return littleEndian(id.high) + littleEndian(id.low);
}

std::optional<RoleKey> roleOfRecord(Brine::Bytes key) {
  if (key.size() < numberSize) return std::nullopt;
  return RoleKey{numberAt(key, 0, true), std::string(Brine::asText(key.subspan(numberSize)))};
}

std::optional<ElectionNumber> electionIdOfRecord(Brine::Bytes value) {
  if (value.size() != 2 * numberSize) return std::nullopt;
  return ElectionNumber{numberAt(value, 0, false), numberAt(value, numberSize, false)};
}

std::map<RoleKey, ElectionNumber> ElectionIds::kept() {
  std::map<RoleKey, ElectionNumber> all;
  if (!store_.hasTable(tableName)) return all;
  store_.forEach(store_.table(tableName), [&all](Brine::Bytes key, Brine::Bytes value) {
    const auto role = roleOfRecord(key);
    const auto id = electionIdOfRecord(value);
    if (role && id) {
      all.emplace(*role, *id);
    } else {
      SCRIVEL_TRACE(0, "kept", " unreadable record of an election id");
    }
    return true;
  });
  return all;
}

bool ElectionIds::idIs(const RoleKey& role, const ElectionNumber& id) { return change(role, id); }

bool ElectionIds::idDel(const RoleKey& role) { return change(role, std::nullopt); }

bool ElectionIds::change(const RoleKey& role, const Wanted& id) {
  {
    const Vela::ActivityLock lock;
    unkept_[role] = id;
  }
  return keep(role);
}

bool ElectionIds::keep(const RoleKey& role) {
  while (!put(role)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const Vela::ActivityLock lock;
  const auto wanted = unkept_.find(role);
  if (wanted == unkept_.end()) return true;
  if (!stands(role, wanted->second)) {
    SCRIVEL_TRACE(0, "keep", " the election id of role ", role.role, " could not be kept");
    return false;
  }
  unkept_.erase(wanted);
  return true;
}

// False in a batch. The end of the scope commits.
bool ElectionIds::put(const RoleKey& role) {
  const Vela::ActivityLock lock;
  if (inBatch_()) return false;
  const auto wanted = unkept_.find(role);
  if (wanted == unkept_.end()) return true;
  const std::string key = electionIdKey(role);
  try {
    const Brine::TableNumber table = store_.table(tableName);
    if (wanted->second) {
      store_.put(table, Brine::asBytes(key), Brine::asBytes(electionIdValue(*wanted->second)));
    } else {
      store_.erase(table, Brine::asBytes(key));
    }
  } catch (const Brine::StoreError& e) {
    SCRIVEL_TRACE(0, "put", " ", e.what());  // stands() will see
  }
  return true;
}

bool ElectionIds::stands(const RoleKey& role, const Wanted& id) {
  if (!store_.hasTable(tableName)) return !id;
  const std::string key = electionIdKey(role);
  const auto stored = store_.get(store_.table(tableName), Brine::asBytes(key));
  if (!id) return !stored;
  return stored && electionIdOfRecord(*stored) == id;
}

size_t ElectionIds::keepUnkept() {
  std::vector<RoleKey> roles;
  {
    const Vela::ActivityLock lock;
    for (const auto& [role, wanted] : unkept_) roles.push_back(role);
  }
  if (roles.empty()) return 0;
  const Vela::ActivityLockReleased released;  // so that the ends of scopes commit
  return std::count_if(roles.begin(), roles.end(),
                       [this](const RoleKey& role) { return !keep(role); });
}

namespace {

RoleKey roleOf(const PIGrpcServerElectionId_t& id) {
  return {id.device_id, std::string(id.role, id.role_size)};
}

void save(const PIGrpcServerElectionId_t* id, void* cookie) {
  auto& ids = *static_cast<ElectionIds*>(cookie);
  if (ids.idIs(roleOf(*id), {id->high, id->low})) return;
  // Any client may choose the name, so it is printed as one plain line.
  Vela::tellError(
      "the state directory has no room for election id {} of role '{}'; it holds, "
      "but a restart may forget it until there is room",
      id->low, Vela::plainLine({id->role, id->role_size}, longestRoleShown));
}

void forget(const PIGrpcServerElectionId_t* id, void* cookie) {
  static_cast<ElectionIds*>(cookie)->idDel(roleOf(*id));
}

}  // namespace

void keepElectionIdsOfServer(ElectionIds& ids) {
  for (const auto& [role, id] : ids.kept()) {
    const PIGrpcServerElectionId_t kept{.device_id = role.deviceId,
                                        .role = role.role.data(),
                                        .role_size = role.role.size(),
                                        .high = id.high,
                                        .low = id.low};
    PIGrpcServerElectionIdIs(&kept);
  }
  const PIGrpcServerElectionIdKeeper_t keeper{.save = save, .forget = forget};
  PIGrpcServerElectionIdKeeperIs(&keeper, &ids);
}

}  // namespace P4Runtime
