// Sends entities that are no table entries: those with rows as they were written, cells without a
// row as all cells were set, or as they begin. Counts come from the target, and so do cells of
// registers where the forwarding plane tells them.
#pragma once

#include <optional>
#include <vector>

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/read/EntitySender.h"
#include "PI/frontend/read/Query.h"
#include "PI/frontend/read/RegisterCells.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/frontends/proto/entity_rights.h"
#include "PI/pi_counter.h"

namespace pi::fe::proto {

// For one query of a Read, on its thread.
class EntityReader {
 public:
  EntityReader(const P4InfoIndex& index, const EntryStore::Snapshot& snapshot,
               const TargetSession& session, EntitySender* sender)
      : index_(index), snapshot_(snapshot), session_(session), sender_(*sender) {}

  // Both return false once the client wants no more. `found`: the row, null for none. `rights` are
  // the caller's; null: it may read all.
  bool sendAll(const Query& query, const EntityRights* rights);
  bool sendOne(const Query& query, const Entry* found);

 private:
  bool sendAllOf(const EntityPlan& plan);
  bool sendRows(const EntityPlan& plan);
  bool sendCells(const EntityPlan& plan);
  // `count`: that of the cell, as the target has it; null for arrays that count nothing.
  bool sendCell(const EntityPlan& plan, uint64_t cell, const Entry* row,
                const pi_counter_data_t* count);
  std::vector<pi_counter_data_t> countsOf(const EntityPlan& plan, uint64_t first,
                                          uint64_t cells) const;
  const Entry* rowOfAllCells(const EntityPlan& plan) const;

  const P4InfoIndex& index_;
  const EntryStore::Snapshot& snapshot_;
  const TargetSession& session_;
  EntitySender& sender_;
  std::optional<RegisterCells> registers_;  // of the register whose cells are being sent
};

}  // namespace pi::fe::proto
