// The reports of forwarding agents on the rows of queries. No batch waits for them; failures are
// listed with the failures of other entries until the row is programmed or gone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/failures/EntryFailures.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// Call with the activity lock held.
class DerivedFailures {
 public:
  explicit DerivedFailures(Vela::Ptr<EntryFailures> failures) : failures_(std::move(failures)) {}

  // The names of the derived rows with these handles; empty where a row is not there (any more).
  // Walks over all rows.
  using RowTexts = std::function<std::vector<std::string>(std::span<const uint64_t> handles)>;
  void rowTextsIs(RowTexts rowTexts) { rowTexts_ = std::move(rowTexts); }

  // Records the reports on derived rows, and returns the others, which are valid until the next
  // call. No change beyond `lastSequence` was ever made.
  std::span<const Lattice::Report> takeDerived(std::span<const Lattice::Report> reports,
                                               uint64_t lastSequence);
  // Lists the failures that were reported since the last call, if their rows are there.
  void list();
  void noteRemovedRow(uint64_t handle, uint64_t sequence);
  // The forwarding agents all hold the tables as of `sequence`, or later.
  void inStepIs(uint64_t sequence);
  void agentDel(uint64_t agent);  // it has left, and its failures with it

 private:
  static constexpr size_t mostUnlisted = 1'000'000;
  struct Unlisted {
    uint64_t sequence = 0;
    std::string text;  // of the failure, without the row's name
  };
  void recordFailed(const Lattice::Report& report);
  void recordProgrammed(const Lattice::Report& report);

  const Vela::Ptr<EntryFailures> failures_;
  RowTexts rowTexts_;
  std::map<std::pair<uint64_t, uint64_t>, Unlisted> unlisted_;  // by handle and agent
  std::map<uint64_t, uint64_t> failing_;  // by handle: when the row was removed, 0: it stands
  std::vector<Lattice::Report> others_;
};

}  // namespace P4Runtime
