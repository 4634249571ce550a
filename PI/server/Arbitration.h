// Which controller is the primary of each device and role, as the P4Runtime standard lays it down.
#pragma once

#include <grpcpp/support/status.h>

#include <atomic>
#include <chrono>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "PI/server/RoleClaims.h"
#include "PI/server/RoleConfig.h"

namespace pi::server {

struct ElectionId {
  uint64_t high = 0;
  uint64_t low = 0;
  auto operator<=>(const ElectionId&) const = default;
};

// A role of a device, the unit that has one primary. The empty role is the default one.
struct RoleOfDevice {
  uint64_t deviceId = 0;
  std::string role;
  auto operator<=>(const RoleOfDevice&) const = default;
};

// An arbitration notice to a controller: the code (OK: it is the primary; ALREADY_EXISTS: another
// one is; NOT_FOUND: no client is), and the highest election id ever seen for the role, if any.
struct ArbitrationNotice {
  grpc::StatusCode code = grpc::StatusCode::NOT_FOUND;
  std::optional<ElectionId> highest;
  std::shared_ptr<const RoleConfig> config = nullptr;  // the role's; null: it has none
};

using WallTime = std::chrono::system_clock::time_point;

// Where a stream comes from, and when it began.
struct StreamOrigin {
  std::string address = {};  // as gRPC writes it
  WallTime opened = {};
};

// A controller as people see it.
struct ControllerView {
  RoleOfDevice role;
  std::string identity;
  StreamOrigin origin;
  std::optional<ElectionId> electionId;
  std::optional<WallTime> primarySince;  // nothing: it is a backup
};

struct RoleView {
  RoleOfDevice role;
  size_t clients = 0;
  bool hasPrimary = false;
};

// A controller's stream.
class ArbitrationClient {
 public:
  virtual ~ArbitrationClient() = default;
  // Called with the arbitration's lock held, in the order of events: must neither block nor call
  // the arbitration.
  virtual void arbitrationNoticeIs(const ArbitrationNotice& notice) = 0;
  // Another client took its place: it is no client any more, and its stream must end. Called like
  // arbitrationNoticeIs().
  virtual void displaced(const std::string& reason) = 0;
  // Who the controller has proved to be; constant.
  virtual const std::string& identity() const = 0;
  virtual const StreamOrigin& origin() const = 0;  // constant
};

// Keeps the highest election ids beyond the life of the process. Called from the threads of
// streams, one call at a time, with no lock held that other calls of the arbitration need; may
// wait.
struct ElectionIdKeeper {
  std::function<void(const RoleOfDevice&, ElectionId)> save;  // before the client is primary
  std::function<void(const RoleOfDevice&)> forget;
};

// Threads: thread-safe. Only clientIs() and forgetHighest() wait, for the keeper; other calls wait
// for look-ups at most.
// Errors: refusals are statuses; nothing is thrown.
// Lifetime: clients are borrowed until clientDel(), permits must go before the arbitration does.
class Arbitration {
  struct Contest;

 public:
  struct Limits {
    size_t clientsOfRole = 256;
    size_t clients = 512;
    // Named roles that are remembered; the one that was left first makes room for another.
    size_t roles = 1024;
  };
  // The default role has room of its own, for so many devices. It is forgotten only on a device
  // that never took a Write of it.
  static constexpr size_t kDevices = 64;
  static constexpr size_t kMaxRoleBytes = 256;

  // The right to run one Write. While any is held, a newly elected primary of the role is not
  // installed and nobody's Writes are taken.
  class WritePermit {
   public:
    WritePermit() = default;
    WritePermit(WritePermit&& other) noexcept;
    WritePermit& operator=(WritePermit&& other) noexcept;
    ~WritePermit();

   private:
    friend class Arbitration;
    WritePermit(Arbitration* arbitration, Contest* contest)
        : arbitration_(arbitration), contest_(contest) {}
    Arbitration* arbitration_ = nullptr;
    Contest* contest_ = nullptr;
  };

  Arbitration() = default;
  explicit Arbitration(Limits limits) : limits_(limits) {}
  Arbitration(const Arbitration&) = delete;
  Arbitration& operator=(const Arbitration&) = delete;

  // Clients and roles beyond new limits stay.
  void limitsAre(const Limits& limits);
  // Call before the first client comes. `highest`: a role's highest id, as an earlier process kept
  // it.
  void keeperIs(ElectionIdKeeper keeper) { keeper_ = std::move(keeper); }
  void highestIs(const RoleOfDevice& role, ElectionId highest);
  // Forgets the highest ids of roles without a primary, so that any id can become primary there.
  // Returns the number of these roles. Waits like clientIs().
  size_t forgetHighest();

  // A stream's arbitration update: its first one makes it a client of the role, borrowed until
  // clientDel(). A status other than OK ends the stream: INVALID_ARGUMENT when another client holds
  // the election id or the role's name is too long, RESOURCE_EXHAUSTED beyond a limit,
  // FAILED_PRECONDITION when device or role differ from its first update; the caller then calls
  // clientDel(). Beyond the limits of clients the lowest backup gives way: the role's own
  // backup to a higher election id, a backup of the fullest role to a new primary.
  // `config` becomes the role's when the client becomes its primary; null: the role may do all that
  // no other role keeps to itself. INVALID_ARGUMENT for one that names an object kept by another,
  // RESOURCE_EXHAUSTED for too many objects.
  grpc::Status clientIs(ArbitrationClient& client, const RoleOfDevice& role,
                        std::optional<ElectionId> electionId,
                        std::shared_ptr<const RoleConfig> config = nullptr);
  // The stream has ended. Without effect for one that never became a client. The client gets no
  // notice any more when this returns.
  void clientDel(ArbitrationClient& client);

  // The objects that roles of the device keep to themselves; null: no role does. Costs nothing as
  // long as no role of any device does.
  std::shared_ptr<const RoleClaims> claims(uint64_t deviceId) const;
  bool anyClaims() const { return anyClaims_.load(std::memory_order_acquire); }  // of any device
  // Rises whenever claims() of some device may be others.
  uint64_t claimsVersion() const { return claimsVersion_.load(std::memory_order_acquire); }

  // OK when the role's primary has the election id and its Writes are taken; NOT_FOUND for a role
  // that no client ever named; else PERMISSION_DENIED. So it is, too, when the primary has another
  // identity than `identity`, if that is given: knowing an election id lets nobody in.
  grpc::Status requirePrimary(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                              const std::string* identity = nullptr);
  // The same, and PERMISSION_DENIED when the role's config lets it push no pipeline. Waits for
  // `patience` at most while the election id could become primary: its arbitration update may have
  // been sent before, and be on its way to us still.
  grpc::Status requirePusher(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                             std::chrono::milliseconds patience = {},
                             const std::string* identity = nullptr);
  // The same, and on OK a permit.
  grpc::Status writePermit(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                           WritePermit* permit, const std::string* identity = nullptr);
  // For a Write that has its permit and waited: PERMISSION_DENIED when a higher election id has
  // come meanwhile, else OK.
  grpc::Status requireHighest(const RoleOfDevice& role, std::optional<ElectionId> electionId) const;
  // The default role always exists.
  grpc::Status requireRole(const RoleOfDevice& role) const;

  // Whether the client sends and gets packets: it is a primary that has its notice. It stays so
  // when it repeats its election id during a Write, which makes its next Writes wait.
  bool isPrimary(const ArbitrationClient& client) const;
  // Calls `visit`, with the lock held, for each client of the device for which isPrimary() holds.
  // `config` is its role's, null for none.
  using Visit = std::function<void(ArbitrationClient&, const RoleConfig* config)>;
  void forEachPrimary(uint64_t deviceId, const Visit& visit);

  // Copies of at most `most`, and the number of all: clients, primaries first, and roles that have
  // clients or a highest id; each by device and role.
  struct ControllerViews {
    std::vector<ControllerView> controllers;
    size_t all = 0;
  };
  ControllerViews controllers(size_t most) const;
  struct RoleViews {
    std::vector<RoleView> roles;
    size_t all = 0;
  };
  RoleViews roles(size_t most) const;

 private:
  struct Contest {
    std::map<ArbitrationClient*, std::optional<ElectionId>> clients;
    std::optional<ElectionId> highest;
    std::shared_ptr<const RoleConfig> config;  // as its latest primary gave it
    std::string configFrom;                    // the identity of that primary
    ArbitrationClient* primary = nullptr;      // its election id is `highest`
    WallTime primarySince;                     // of that primary
    bool installed = false;                    // the primary's Writes are taken
    bool told = false;                         // the primary has its notice
    bool hasWritten = false;                   // or was kept by an earlier process
    size_t runningWrites = 0;
    uint64_t leftAt = 0;  // when its last client went, by leaves_
  };

  using Contests = std::map<RoleOfDevice, Contest>;
  using Forgotten = std::optional<RoleOfDevice>;

  bool raises(const RoleOfDevice& role, const std::optional<ElectionId>& electionId) const;
  grpc::Status admission(const ArbitrationClient& client, const RoleOfDevice& role,
                         const std::optional<ElectionId>& electionId);
  grpc::Status roomForRole(const RoleOfDevice& role);
  grpc::Status roomForClient(const Contest* contest, const RoleOfDevice& role,
                             const std::optional<ElectionId>& electionId);
  Contests::iterator leastRecent(bool ofDefaultRoles);
  Contest* fullest();
  static ArbitrationClient* lowestBackup(const Contest& contest);
  void makeRoom(const RoleOfDevice& role, Forgotten* forgotten);
  void displace(Contest& contest, const std::string& reason);
  void enter(ArbitrationClient& client, const RoleOfDevice& role,
             const std::optional<ElectionId>& electionId, std::shared_ptr<const RoleConfig> config,
             Forgotten* forgotten);
  void elect(Contest& contest, ArbitrationClient& client, ElectionId electionId);
  void backUp(Contest& contest, ArbitrationClient& client);
  static void dethrone(Contest& contest);
  void installPrimary(Contest& contest);
  static void notifyOthers(const Contest& contest, const ArbitrationClient* except);
  static void notify(const Contest& contest, ArbitrationClient& client);
  grpc::Status pushPermission(const RoleOfDevice& role, const std::optional<ElectionId>& electionId,
                              const std::string* identity);
  bool mayBecomePrimary(const RoleOfDevice& role,
                        const std::optional<ElectionId>& electionId) const;
  grpc::Status permission(const RoleOfDevice& role, const std::optional<ElectionId>& electionId,
                          const std::string* identity, Contest** contest);
  grpc::Status requireUnclaimed(const RoleOfDevice& role, const RoleConfig& config) const;
  void configIs(const RoleOfDevice& role, Contest& contest,
                std::shared_ptr<const RoleConfig> config, const std::string& identity);
  void updateClaims(uint64_t deviceId);
  void writeDone(Contest& contest);

  ElectionIdKeeper keeper_;
  // Guards the order of the keeper's calls: ids are kept in the order in which they rise. Held
  // around clientIs(); taken before mutex_.
  std::mutex keeping_;
  mutable std::mutex mutex_;  // guards the members below
  std::condition_variable installed_;
  Limits limits_;
  Contests contests_;  // with clients, or with a remembered highest id
  size_t defaultRoles_ = 0;
  uint64_t leaves_ = 0;
  std::unordered_map<const ArbitrationClient*, Contests::iterator> contestOf_;
  // Of claims_, which is written with both locks held. A leaf: streams ask for claims while they
  // are being visited.
  mutable std::mutex claimsMutex_;
  std::map<uint64_t, std::shared_ptr<const RoleClaims>> claims_;  // by device; those with any
  std::atomic<uint64_t> claimsVersion_{0};
  std::atomic<bool> anyClaims_{false};
};

// The one of the process: election ids stay known when the server is restarted.
Arbitration& TheArbitration();

}  // namespace pi::server
