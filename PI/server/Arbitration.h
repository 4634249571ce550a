// Which controller is the primary of each device and role, as the P4Runtime standard lays it down.
#pragma once

#include <grpcpp/support/status.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

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

// What a controller is told: the code (OK: it is the primary; ALREADY_EXISTS: another one is;
// NOT_FOUND: nobody is), and the highest election id ever seen for the role, if any.
struct ArbitrationNotice {
  grpc::StatusCode code = grpc::StatusCode::NOT_FOUND;
  std::optional<ElectionId> highest;
};

// A controller's stream.
class ArbitrationClient {
 public:
  virtual ~ArbitrationClient() = default;
  // Called with the arbitration's lock held, in the order of events: must neither block nor call
  // the arbitration.
  virtual void arbitrationNoticeIs(const ArbitrationNotice& notice) = 0;
};

// Thread-safe; no call waits for anything but other calls' look-ups.
class Arbitration {
  struct Contest;

 public:
  struct Limits {
    size_t clientsOfRole = 256;
    size_t roles = 1024;
  };

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

  // A stream's arbitration update: its first one makes it a client of the role, borrowed until
  // clientDel(). A status other than OK ends the stream: INVALID_ARGUMENT when another client holds
  // the election id, RESOURCE_EXHAUSTED beyond a limit, FAILED_PRECONDITION when device or role are
  // not those of its first update; the caller then calls clientDel().
  grpc::Status clientIs(ArbitrationClient& client, const RoleOfDevice& role,
                        std::optional<ElectionId> electionId);
  // The stream has ended. Without effect for one that never became a client. The client gets no
  // notice any more when this returns.
  void clientDel(ArbitrationClient& client);

  // OK when the role's primary has the election id and its Writes are taken; NOT_FOUND for a role
  // that no client ever named; else PERMISSION_DENIED.
  grpc::Status requirePrimary(const RoleOfDevice& role, std::optional<ElectionId> electionId);
  // The same, and on OK a permit.
  grpc::Status writePermit(const RoleOfDevice& role, std::optional<ElectionId> electionId,
                           WritePermit* permit);
  // The default role always exists.
  grpc::Status requireRole(const RoleOfDevice& role) const;

  // Whether packets are the client's: a primary from when it is told so. Unlike Writes they go on
  // when it repeats its election id while its Write is running.
  bool isPrimary(const ArbitrationClient& client) const;
  // Calls visit with the lock held for the primary, in that sense, of each role of the device.
  void forEachPrimary(uint64_t deviceId, const std::function<void(ArbitrationClient&)>& visit);

 private:
  struct Contest {
    std::map<ArbitrationClient*, std::optional<ElectionId>> clients;
    std::optional<ElectionId> highest;
    ArbitrationClient* primary = nullptr;  // its election id is `highest`
    bool installed = false;                // the primary's Writes are taken
    bool told = false;                     // the primary has been told so
    size_t runningWrites = 0;
  };

  using Contests = std::map<RoleOfDevice, Contest>;

  grpc::Status contestFor(const ArbitrationClient& client, const RoleOfDevice& role,
                          Contests::iterator* contest);
  void elect(Contest& contest, ArbitrationClient& client, ElectionId electionId);
  void backUp(Contest& contest, ArbitrationClient& client);
  static void dethrone(Contest& contest);
  static void installPrimary(Contest& contest);
  static void notifyOthers(const Contest& contest, const ArbitrationClient* except);
  static void notify(const Contest& contest, ArbitrationClient& client);
  grpc::Status permission(const RoleOfDevice& role, const std::optional<ElectionId>& electionId,
                          Contest** contest);
  void writeDone(Contest& contest);

  const Limits limits_;
  mutable std::mutex mutex_;
  // A contest that has seen an election id stays as long as this object.
  Contests contests_;
  std::unordered_map<const ArbitrationClient*, Contests::iterator> contestOf_;
};

// The one of the process: election ids stay known when the server is restarted.
Arbitration& TheArbitration();

}  // namespace pi::server
