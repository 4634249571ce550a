#include "p4/tables/Sides.h"

#include <thread>
#include <utility>

namespace P4 {

Sides::Sides() { side_[1].number = 1; }

const Side& Sides::enter() {
  for (;;) {
    const int side = active_.load();
    inside_.store(side + 1);
    if (active_.load() == side) return side_[side];  // else a commit came between
  }
}

void Sides::apply(const Noted& noted, Side& side) {
  switch (noted.kind) {
    case Kind::insert:
      side.tables[noted.entry->table].insert(noted.entry);
      break;
    case Kind::remove:
      side.tables[noted.entry->table].remove(noted.entry);
      break;
    case Kind::outcome:
      noted.entry->outcome[side.number] = noted.outcome;
      break;
    case Kind::other:
      others_[noted.other](side);
      break;
  }
}

void Sides::note(Kind kind, Entry* entry, const Outcome& outcome, size_t other) {
  noted_.push_back({kind, entry, outcome, other});
  apply(noted_.back(), side_[1 - active_.load(std::memory_order_relaxed)]);
}

bool Sides::maybeInsert(Entry* entry) {
  Side& side = side_[1 - active_.load(std::memory_order_relaxed)];
  if (!side.tables[entry->table].maybeInsert(entry)) return false;
  noted_.push_back({Kind::insert, entry, {}, 0});
  return true;
}
void Sides::remove(Entry* entry) { note(Kind::remove, entry); }
void Sides::setOutcome(Entry* entry, const Outcome& outcome) {
  note(Kind::outcome, entry, outcome);
}

void Sides::change(Change change) {
  others_.push_back(std::move(change));
  note(Kind::other, nullptr, {}, others_.size() - 1);
}

void Sides::publish() {
  const int former = active_.load(std::memory_order_relaxed);
  active_.store(1 - former);
  while (inside_.load() == former + 1) std::this_thread::yield();
  isBehind_ = true;
}

void Sides::settle() {
  if (!std::exchange(isBehind_, false)) return;
  Side& other = side_[1 - active_.load(std::memory_order_relaxed)];
  for (const Noted& noted : noted_) apply(noted, other);
  noted_.clear();
  others_.clear();
}

}  // namespace P4
