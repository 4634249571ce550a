// Keeps the highest election id of each role of a device beside the entries, so that a controller
// that was replaced long ago does not become primary after a restart.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/brine/Store.h"

namespace P4Runtime {

struct RoleKey {
  uint64_t deviceId = 0;
  std::string role;  // "": the default role
  auto operator<=>(const RoleKey&) const = default;
};

// Compares like the 128-bit number that it is.
struct ElectionNumber {
  uint64_t high = 0;
  uint64_t low = 0;
  auto operator<=>(const ElectionNumber&) const = default;
};

// Record: key deviceId u64 big-endian | role; value high u64 | low u64, little-endian.
std::string electionIdKey(const RoleKey& role);
std::string electionIdValue(const ElectionNumber& id);
std::optional<RoleKey> roleOfRecord(Brine::Bytes key);  // empty: no such record
std::optional<ElectionNumber> electionIdOfRecord(Brine::Bytes value);

// Call its functions without the activity lock. They take it themselves and give it up, so that
// each change is a commit of its own.
class ElectionIds {
 public:
  // Whether the store gathers the writes of a batch, whose fate ids must not share.
  using InBatch = std::function<bool()>;
  // `store` outlives this.
  ElectionIds(Brine::Store& store, InBatch inBatch) : store_(store), inBatch_(std::move(inBatch)) {}

  // The ids that an earlier process stored. Call with the activity lock held.
  std::map<RoleKey, ElectionNumber> kept();

  // Waits for the end of a batch's writing, which is a matter of milliseconds. False when the store
  // took nothing: keepUnkept() tries again.
  bool idIs(const RoleKey& role, const ElectionNumber& id);
  bool idDel(const RoleKey& role);
  // Tries the unkept ids again; returns the number of ids still unkept. Gives the activity lock up.
  size_t keepUnkept();

 private:
  using Wanted = std::optional<ElectionNumber>;  // empty: no record

  bool change(const RoleKey& role, const Wanted& id);
  bool keep(const RoleKey& role);
  bool put(const RoleKey& role);
  bool stands(const RoleKey& role, const Wanted& id);

  Brine::Store& store_;
  const InBatch inBatch_;
  std::map<RoleKey, Wanted> unkept_;  // not stored yet; guarded by the activity lock
};

// Gives the server the kept ids, and keeps its new ones from then on. `ids` outlives the server.
// Call it with the activity lock held, before the server starts.
void keepElectionIdsOfServer(ElectionIds& ids);

}  // namespace P4Runtime
