// The writer's side of the journal: gathers the changes of a commit, writes them as records small
// enough to share a page, and trims changes that every follower has.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/Store.h"
#include "platform/lattice/records/StoreLayout.h"

namespace Lattice {

// A change of the last commit.
struct CommittedChange {
  uint64_t sequence = 0;
  uint64_t entryHandle = 0;
};

// Call with the activity lock held, on any thread. The store outlives it. Functions that read or
// write records throw Brine::StoreError.
class Journal {
 public:
  // Reads where the store's journal stands. A damaged journal is emptied: followers that were to
  // continue from it take a snapshot.
  explicit Journal(Brine::Store& store);

  uint64_t lastSequence() const { return state_.lastSequence; }  // committed
  uint64_t trimmedUpTo() const { return state_.trimmedUpTo; }
  bool empty() const { return live_ == 0; }
  uint32_t nextTableNumber() { return ++fresh_.lastTable; }
  void typesChanged() { ++fresh_.typesVersion; }

  // Adds a change to this commit and returns its sequence number. It replaces a former change of
  // the same row for the same entry handle; `unchanged` then holds only if the former had it, too.
  uint64_t add(uint32_t table, std::string_view key, std::string_view value, uint64_t entryHandle,
               bool deleted, bool unchanged);
  uint64_t nextSequence() const { return nextSequence_; }  // of the next add()

  void handleFollowerGone() const { store_.handleReaderGone(); }

  // Changes that may go: all up to `sequence`, and the oldest beyond `maxChanges`.
  void trimTo(uint64_t sequence, size_t maxChanges);
  // Puts all of it into the store's write set. Throws StoreError{full}.
  void flush();
  // Call when the store has committed, or dropped its write set. finishCommit() returns the changes
  // in order.
  const std::vector<CommittedChange>& finishCommit();
  void discard();

 private:
  struct Pending {
    uint64_t sequence;
    uint64_t entryHandle;
    uint64_t hash;
    uint32_t at;  // in bytes_
    uint32_t size;
    uint32_t table;
    bool unchanged;
    bool live;
  };
  struct Record {
    uint64_t first;
    uint64_t last;
    uint32_t changes;
  };
  void load();
  void startOver(uint64_t lastSequence);
  uint32_t highestTable();
  bool loadRecord(Brine::Bytes key, Brine::Bytes value);
  uint32_t* slotOf(uint32_t table, std::string_view key, uint64_t hash);
  std::string_view keyOf(const Pending& pending) const;
  void doReplace(size_t index);
  void growIndex();
  void writeRecords();
  void trimRecords();
  void clear();

  Brine::Store& store_;
  const Brine::TableNumber journal_;
  const Brine::TableNumber meta_;
  JournalState state_;  // as committed
  JournalState fresh_;  // as this commit will leave it
  uint64_t nextSequence_ = 1;
  std::deque<Record> records_;  // in the store, oldest first
  size_t changes_ = 0;          // in records_

  // This commit's.
  std::vector<char> bytes_;
  std::vector<Pending> pending_;
  std::vector<uint32_t> index_;  // index + 1 into pending_, 0: free; a power of two many
  size_t live_ = 0;
  std::vector<Record> added_;
  size_t trimmed_ = 0;  // records that this commit takes off the front
  uint64_t trimSequence_ = 0;
  size_t maxChanges_ = SIZE_MAX;
  std::vector<CommittedChange> committed_;
  uint64_t seed_;
};

}  // namespace Lattice
