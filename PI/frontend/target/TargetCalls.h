// The target calls of one update. The first failing call ends them: later calls are not made, and
// the target puts back all that was done for the update.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/pi_act_prof.h"
#include "PI/pi_tables.h"

namespace pi::fe::proto {

// An action as the target takes it. The bytes belong to the caller.
struct ActionBytes {
  uint32_t actionId = 0;
  std::string_view data;
  bool operator==(const ActionBytes&) const = default;
};
ActionBytes actionBytes(const Entry& entry);  // of an action or a member

// For one update within a batch, on the thread that runs the batch, without a lock. Errors are kept
// in status(); nothing is thrown. The session outlives it.
class TargetCalls {
 public:
  TargetCalls(const TargetSession& session, uint32_t offset) : session_(session), offset_(offset) {}

  // The context that the target keeps with the writes of the calls from here on. The bytes must
  // last until the last of these calls.
  void contextIs(uint32_t controllerId, uint64_t controllerMetadata, std::string_view bytes);

  // Sets its handle. `counts`: where its direct counter goes on from.
  void entryAdd(const TablePlan& table, Entry* entry, bool overwrite,
                const std::optional<Counts>& counts = std::nullopt);
  void entryDelete(Entry* entry);
  // A row of a table of rows that come with entries.
  void rowChange(const TablePlan& table, const Change& change);

  uint64_t memberCreate(uint32_t profileId, const ActionBytes& action);  // its handle
  void memberModify(uint32_t profileId, uint64_t member, const ActionBytes& action);
  void memberDelete(uint32_t profileId, uint64_t member);

  uint64_t groupCreate(uint32_t profileId, size_t maxSize);  // its handle
  void groupDelete(uint32_t profileId, uint64_t group);
  void groupMemberAdd(uint32_t profileId, uint64_t group, uint64_t member);
  void groupMemberRemove(uint32_t profileId, uint64_t group, uint64_t member);
  void groupBytesSet(uint32_t profileId, uint64_t group);

  int status() const { return status_; }  // a pi_status_t, or a number of the target's own
  bool anyMade() const { return anyMade_; }

 private:
  template <typename Call>
  void call(Call call);
  pi_dev_tgt_t target() const { return {session_.deviceId, 0xffff}; }

  const TargetSession& session_;
  const uint32_t offset_;
  uint32_t controllerId_ = 0;
  uint64_t controllerMetadata_ = 0;
  std::string_view bytes_;
  int status_ = PI_STATUS_SUCCESS;
  bool anyMade_ = false;
};

}  // namespace pi::fe::proto
