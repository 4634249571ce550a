// Two copies of the tables, so that packets never wait for a writer.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "p4/tables/Side.h"

namespace P4 {

// A writer's changes are made on the side that no packet reads, noted, made visible all at once by
// commit(), and made again on the other side. One writer, one packet thread.
class Sides {
 public:
  using Change = std::function<void(Side&)>;

  Sides();

  // --- the packet thread: brackets the use of a side. enter() never waits.
  const Side& enter();
  void leave() { inside_.store(0, std::memory_order_release); }

  // --- the writer
  bool maybeInsert(Entry* entry);  // false, and nothing is done: there is such an entry
  void remove(Entry* entry);
  void setOutcome(Entry* entry, const Outcome& outcome);
  void change(Change change);  // any other
  // Makes the changes visible. Returns when no packet sees the former state any more. The other
  // side is behind then, until settle(); before that nothing is changed, and staged() is not asked.
  void publish();
  void settle();
  const Side& staged() const { return side_[1 - active_.load(std::memory_order_relaxed)]; }
  Side& sideNumber(int number) { return side_[number]; }  // before packets come

 private:
  enum class Kind : uint8_t { insert, remove, outcome, other };
  struct Noted {
    Kind kind;
    Entry* entry;
    Outcome outcome;
    size_t other;  // in others_
  };
  void apply(const Noted& noted, Side& side);
  void note(Kind kind, Entry* entry, const Outcome& outcome = {}, size_t other = 0);

  Side side_[sides];
  std::vector<Noted> noted_;
  std::vector<Change> others_;
  bool isBehind_ = false;
  std::atomic<int> active_ = 0;
  alignas(64) std::atomic<int> inside_ = 0;  // side + 1 while packets read it
};

}  // namespace P4
