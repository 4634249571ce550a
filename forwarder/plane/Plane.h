// The executing plane: a P4 program, its tables filled from the agent's rows, and the news that it
// has for the agent. Packets themselves are processed elsewhere, by the engine in the slot.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "forwarder/counters/FlowBook.h"
#include "forwarder/follow/RowPlane.h"
#include "forwarder/packets/EngineSlot.h"
#include "forwarder/plane/DigestQueue.h"
#include "forwarder/plane/PlaneTables.h"
#include "forwarder/plane/ProgramSource.h"

namespace Forwarder {

struct PlaneOptions {
  std::string stateDirectory;
  std::string program;  // compiled; executed until a push brings another; empty: none
  P4::EngineOptions engine;
};

// Threads: one at a time, that which follows the agent.
// Errors: a program that cannot be executed is logged, and stands in trouble(); the former one goes
// on. A row that the program has no place for is refused.
class Plane final : public RowPlane {
 public:
  using Log = std::function<void(const std::string& line)>;
  // Throws P4::ProgramError for the program in the options. Slot, digests and flows outlive the
  // plane.
  Plane(PlaneOptions options, EngineSlot& slot, DigestQueue& digests, FlowBook& flows, Log log);

  bool isStale() override;
  bool hasNewPush() const { return source_.isNew(); }  // that isStale() has not taken
  void rebuild(const std::vector<const ProgrammedTable*>& tables) override;
  PlaneVerdict write(const ProgrammedTable& table, const PlaneRow& row) override;
  PlaneVerdict erase(const ProgrammedTable& table, std::string_view key, RowPlace place) override;
  void eraseAll(const ProgrammedTable& table) override;
  void handleRetyped(const ProgrammedTable& table) override;
  void handleIs(const ProgrammedTable& table, std::string_view key, RowPlace place,
                uint64_t entryHandle) override;
  void countsAre(const ProgrammedTable& table, std::string_view key, const RowFlow& flow) override;
  void commit() override;
  void settle() override;
  Lattice::Answer answer(const Lattice::Question& question) override;

  // Of a program's action profiles: members whose port is down are passed over. In the midst of
  // changes of rows this waits for commit().
  void portIs(uint32_t port, bool up);
  // Tells the counts that have changed, of some thousand entries and cells at a time, whenever
  // countsDue() has come.
  using Clock = std::chrono::steady_clock;
  void maybeTellCounts(Clock::time_point now);
  Clock::time_point countsDue() const { return countsDue_; }
  void retellCounts();
  // Those of all entries and cells, unless they are too many to be looked at while somebody waits.
  void tellCountsNow();
  // Entry handles of entries that no packet has met for their time-outs; ask once a second.
  std::vector<uint64_t> idleEntries(uint64_t now);
  uint64_t push() const { return push_; }  // whose program is executed; 0: none
  const std::string& trouble() const { return trouble_; }
  const P4::Engine* engine() const { return engine_.get(); }

 private:
  struct Executed {
    std::string json;
    ProgramNames names;
    bool operator==(const Executed&) const = default;
  };
  Lattice::Answer answerOfPush(uint64_t push) const;
  Lattice::Answer registerCells(const Lattice::Question& question) const;
  Lattice::Answer lastHits(const Lattice::Question& question) const;
  std::optional<uint32_t> registerWithId(uint32_t id) const;
  void takePush();
  void forgetPush();
  void execute(Executed next);
  PlaneTable* tableOf(const ProgrammedTable& table);
  bool tellEntries();
  bool tellCells();
  uint32_t counterId(const std::string& name) const;
  void addRows(const std::vector<const ProgrammedTable*>& tables);
  void maybeTellDigests();
  void handleTrouble(const std::string& trouble);

  const PlaneOptions options_;
  EngineSlot& slot_;
  DigestQueue& digests_;
  FlowBook& flows_;
  const Log log_;
  ProgramSource source_;
  std::string trouble_;

  Executed executed_;
  uint64_t push_ = 0;
  std::shared_ptr<P4::Engine> engine_;    // null: there is no program
  bool isFresh_ = false;                  // rebuild() has not filled it yet
  bool isStaged_ = false;                 // has changes that wait for commit()
  std::shared_ptr<P4::Engine> countsOf_;  // whose counts and registers it takes over; or null
  std::unique_ptr<PlaneTables> maker_;    // of tables_
  absl::flat_hash_map<const ProgrammedTable*, std::unique_ptr<PlaneTable>> tables_;
  IdleBooks idle_;
  std::set<uint32_t> downPorts_;
  std::vector<uint32_t> wantedDigests_;  // that the queue knows

  // Counts are told in rounds: first those of entries, a table after the other, then those of
  // cells.
  std::vector<PlaneTable*> round_;                // tables whose turn has not come
  std::vector<std::vector<uint64_t>> toldCells_;  // packets, by array and index
  size_t nextArray_ = 0;
  size_t nextCell_ = 0;
  bool isInRound_ = false;
  Clock::time_point countsDue_{};
};

}  // namespace Forwarder
