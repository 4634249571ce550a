// Writes the names that a turn of Writes brings to the target, and deletes those without a user, in
// batches of their own.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <utility>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontend/target/TargetSession.h"

namespace pi::fe::proto {

// For one turn, as WriteRun. Costs no batch when all names are known.
class NameWrites {
 public:
  using Name = std::pair<const Dictionary*, uint32_t>;
  using Failures = absl::flat_hash_map<Name, Refusal>;

  NameWrites(const P4InfoIndex& index, const TargetSession& session)
      : index_(index), session_(session) {}

  // Names that the target is to have. A name that it has already is left out.
  void add(const NamePins& pins);
  bool any() const { return !added_.empty(); }
  // Writes these, and returns the names that the target did not take. Throws a Refusal when it
  // takes no batch.
  Failures doStore();
  static const Refusal* failureOf(const Failures& failures, const NamePins& pins);  // null: none

  // A failure leaves the name, and is nobody's.
  void doDeleteLeaving();

 private:
  struct Row {
    Dictionary* type = nullptr;
    uint32_t number = 0;
    EntryPtr entry;
    const TablePlan* table = nullptr;
  };
  using Rows = std::vector<Row>;

  const NamedType& typeOf(const Dictionary& names) const;
  Rows leavingRows() const;
  Failures doRun(const Rows& rows, bool isDelete) const;

  const P4InfoIndex& index_;
  const TargetSession& session_;
  absl::flat_hash_map<Name, Dictionary*> added_;
};

}  // namespace pi::fe::proto
