// Reads another process's store: whole commits, and the changes from one to the next. Nothing here
// writes into the store or locks it, so a reader may be killed, and may be as slow as it likes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/Store.h"

namespace Brine {

// A copy of the tables as they were after one commit.
class Snapshot {
 public:
  virtual ~Snapshot() = default;
  virtual uint64_t sequence() const = 0;  // of the last change that it shows
  virtual std::vector<std::string> tableNames() const = 0;
  virtual bool hasTable(std::string_view name) const = 0;
  // The four below return nothing, or 0, for an absent table. Bytes live as long as this.
  virtual std::optional<Bytes> get(std::string_view table, Bytes key) const = 0;
  virtual size_t forEachRecord(std::string_view table, const Store::RecordVisit& visit) const = 0;
  virtual size_t count(std::string_view table) const = 0;
  // Returns how many damaged records it has passed over.
  size_t forEach(std::string_view table, const Store::Visit& visit) const;
  virtual const std::set<DamagedRecord>& damagedRecords() const = 0;
  // The change that wrote the record waits for its outcome.
  virtual bool isUnsettled(const Record& record) const = 0;
};

// A change, as a follower sees it.
struct FollowedChange {
  uint64_t sequence = 0;
  uint64_t owner = 0;
  TableNumber table = 0;
  bool deleted = false;
  bool unchanged = false;
  Bytes key;    // both are valid during the visit
  Bytes value;  // empty for a deletion
};

// Not thread-safe: one Reader a thread.
class Reader {
 public:
  // Throws StoreError. A damaged store is refused.
  static std::unique_ptr<Reader> open(const std::string& directory);
  virtual ~Reader() = default;

  struct State {
    uint64_t committed = 0;     // the last change
    uint64_t trimmed = 0;       // the changes after it can be followed
    uint64_t typesVersion = 0;  // rises with each change of the followed tables
  };
  virtual State state() const = 0;
  virtual std::string_view identity() const = 0;  // 16 bytes, made with the store

  // The newest commit. Unless `tables` is null, only the tables that it accepts are copied. Without
  // attachments, its records show none. Throws StoreError when the writer is too busy, or the store
  // is damaged.
  using TableFilter = std::function<bool(std::string_view name)>;
  enum class Attachments { copied, leftOut };
  virtual std::unique_ptr<Snapshot> snapshot(const TableFilter& tables = nullptr,
                                             Attachments attachments = Attachments::copied) = 0;
  virtual TableNumber tableNumber(std::string_view name) = 0;  // 0: there is none

  // Visits the changes after `from` in their order, up to `to` at most, some hundred at a time.
  // Returns the sequence number reached, or nothing when changes are lost that the follower has not
  // seen: a snapshot tells the rest.
  using ChangesVisit = std::function<void(std::span<const FollowedChange> changes)>;
  virtual std::optional<uint64_t> follow(uint64_t from, uint64_t to, const ChangesVisit& visit) = 0;
  // The same ahead of the commit: changes that Store::showAhead() has shown up to `to`. Returns
  // nothing when one cannot be seen whole; it can once it is committed.
  virtual std::optional<uint64_t> followAhead(uint64_t from, uint64_t to,
                                              const ChangesVisit& visit) = 0;
  // Whether the changes after `from`, up to `to`, were committed as followAhead() has visited them.
  // One that a later one has replaced counts: that one was committed, too.
  virtual bool cameTrue(uint64_t from, uint64_t to) const = 0;
  // The last change that the writer has made, committed or not; `from` when there is none after it.
  virtual uint64_t lastWritten(uint64_t from) const = 0;
  // Visits the changes from `last` down to `first`, each as the change that takes it back: with the
  // record's former value and owner, or deleted when there was none. Changes that are settled may
  // be forgotten. Returns false when one of them is, with those after it visited.
  virtual bool visitTakenBack(uint64_t first, uint64_t last,
                              const std::function<void(const FollowedChange& change)>& visit) = 0;
  // The same, one at a time.
  using ChangeVisit = std::function<void(const FollowedChange& change)>;
  std::optional<uint64_t> followEach(uint64_t from, uint64_t to, const ChangeVisit& visit);
};

}  // namespace Brine
