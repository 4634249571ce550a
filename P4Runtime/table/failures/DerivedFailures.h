// What forwarding agents report on the rows of queries. No batch waits for it; failures are listed
// with those of other entries until the row is programmed or gone.
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

  // What to call the derived rows with these handles; empty where a row is not there (any more).
  // Walks over all of them.
  using RowTexts = std::function<std::vector<std::string>(std::span<const uint64_t> handles)>;
  void rowTextsIs(RowTexts rowTexts) { rowTexts_ = std::move(rowTexts); }

  // Takes the reports on derived rows, and returns the others, which are valid until the next call.
  // No change beyond `lastSequence` was ever made.
  std::span<const Lattice::Report> taken(std::span<const Lattice::Report> reports,
                                         uint64_t lastSequence);
  // Lists what has been reported as failed since the last call, if there is such a row.
  void list();
  void rowRemoved(uint64_t handle, uint64_t sequence);
  // All forwarding agents hold just what stood in the tables at `sequence`, or later.
  void inStepIs(uint64_t sequence);
  void agentDel(uint64_t agent);  // it has left, and its failures with it

 private:
  static constexpr size_t mostUnlisted = 1'000'000;
  struct Unlisted {
    uint64_t sequence = 0;
    std::string text;  // of the failure, without the row's name
  };
  void failed(const Lattice::Report& report);
  void programmed(const Lattice::Report& report);

  const Vela::Ptr<EntryFailures> failures_;
  RowTexts rowTexts_;
  std::map<std::pair<uint64_t, uint64_t>, Unlisted> unlisted_;  // by handle and agent
  std::map<uint64_t, uint64_t> failing_;  // by handle: when the row was removed, 0: it stands
  std::vector<Lattice::Report> others_;
};

}  // namespace P4Runtime
