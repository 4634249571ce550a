// The counts of the plane, on their way to the agent.
#include <algorithm>

#include "forwarder/plane/Plane.h"

namespace Forwarder {
namespace {

// A slice takes less than a millisecond, also when every entry has to be fetched from memory.
constexpr size_t countsInSlice = 8192;
constexpr std::chrono::milliseconds betweenSlices{10};
constexpr std::chrono::milliseconds betweenRounds{400};

}  // namespace

void Plane::maybeTellCounts(Clock::time_point now) {
  if (!engine_ || isFresh_ || now < countsDue_) return;
  if (!isInRound_) {
    isInRound_ = true;
    nextArray_ = nextCell_ = 0;
    for (const auto& [table, rows] : tables_) {
      if (rows && table->hasCounter()) round_.push_back(rows.get());
    }
  }
  isInRound_ = !tellEntries() || !tellCells();
  countsDue_ = now + (isInRound_ ? betweenSlices : betweenRounds);
}

void Plane::tellCountsNow() {
  if (!engine_ || isFresh_) return;
  flows_.urgencyIs();
  constexpr size_t most = 200'000;
  size_t count = 0;
  for (const auto& [table, rows] : tables_) count += table->hasCounter() ? table->rowCount() : 0;
  for (const std::vector<uint64_t>& told : toldCells_) count += told.size();
  if (count > most) return;
  // Once more, as this round may be past some of them.
  for (int round = isInRound_ ? 2 : 1; round > 0; round -= !isInRound_) {
    maybeTellCounts(std::max(Clock::now(), countsDue_));
  }
}

// Whether all entries have had their turn.
bool Plane::tellEntries() {
  if (round_.empty()) return true;
  const bool isThrough =
      round_.back()->eachCount(countsInSlice, [&](uint64_t handle, const P4::Counts& counts) {
        flows_.countIs({.entryHandle = handle, .bytes = counts.bytes, .packets = counts.packets});
      });
  if (isThrough) round_.pop_back();
  return round_.empty();
}

uint32_t Plane::counterId(const std::string& name) const {
  for (const auto& [rows, meaning] : executed_.names.tables) {
    if (meaning.kind == "counter" && meaning.name == name) return meaning.id;
  }
  return 0;
}

// Whether all cells have had their turn.
bool Plane::tellCells() {
  for (size_t left = countsInSlice; nextArray_ < toldCells_.size(); ++nextArray_, nextCell_ = 0) {
    std::vector<uint64_t>& told = toldCells_[nextArray_];
    const auto array = static_cast<uint32_t>(nextArray_);
    const uint32_t id = told.empty() ? 0 : counterId(engine_->program().counters[array].name);
    if (id == 0) continue;
    for (; nextCell_ < told.size(); ++nextCell_, --left) {
      if (left == 0) return false;
      const auto counts = engine_->counter(array, static_cast<uint32_t>(nextCell_));
      if (!counts || counts->packets == told[nextCell_]) continue;
      told[nextCell_] = counts->packets;
      flows_.cellCountIs(id, nextCell_, {.bytes = counts->bytes, .packets = counts->packets});
    }
  }
  return true;
}

void Plane::retellCounts() {
  for (std::vector<uint64_t>& told : toldCells_) std::ranges::fill(told, 0);
  for (const auto& [table, rows] : tables_) {
    if (rows) rows->retellCounts();
  }
}

}  // namespace Forwarder
