// The agent's side of the shared tables: typed interfaces that write rows, and the doorbell socket
// on which forwarding agents hear of changes and report.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/brine/Store.h"
#include "platform/lattice/doorbell/Question.h"
#include "platform/lattice/doorbell/Report.h"
#include "platform/lattice/types/TableType.h"
#include "platform/vela/Outcome.h"
#include "platform/vela/Ptr.h"
#include "platform/vela/ReactorLoop.h"

namespace Lattice {

class CommitObserver;
class Database;
class DatabaseImpl;
class TableWatch;

// A row as it stands in the store. The views last until the row is written again.
struct StoredRow {
  std::string_view key;
  std::string_view value;
  std::string_view attachment;  // bytes of the agent's own, which followers do not see
  uint64_t entryHandle = 0;     // that the row was last written with
  uint64_t sequence = 0;        // of its last change
  bool unsettled = false;       // that change waits for its outcome
};

// The typed access interface of one table. Call with the activity lock held, on any thread. May
// outlive the database: it is then no longer ready. Functions that need ready() throw
// std::logic_error without it, and Brine::StoreError when the store does.
class ArTableInterface : public Vela::RefCounted {
 public:
  // `ready` runs once, on a later turn of the reactor than the one that binds the interface.
  ArTableInterface(std::string tableName, std::string typeName, std::function<void()> ready);
  ~ArTableInterface() override;

  const std::string& tableName() const;
  const std::string& typeName() const;
  void maybeInitialize();  // opens the table once its type is compiled; nothing when open already
  bool ready() const;      // bound and initialised

  // Below: only when ready().
  std::optional<Row> row(std::string_view key) const;  // rows not committed included
  std::optional<StoredRow> stored(std::string_view key) const;
  // The row of an entry, by the hash of the row's key.
  std::optional<StoredRow> storedOf(uint64_t entryHandle, uint32_t keyHash) const;
  uint32_t keyHash(std::string_view key) const;
  // Has the processor fetch the memory of the rows whose keys have these hashes, for writes that
  // are to come.
  void load(std::span<const uint32_t> keyHashes) const;
  // The row of an entry whose deletion waits for its outcome. Looks through all changes that do.
  std::optional<StoredRow> beingDeleted(uint64_t entryHandle) const;
  // Visits the committed rows, in no order, until `visit` returns false; `visit` must not write.
  // With a `position`, the next walk goes on where this one stopped.
  using Visit = std::function<bool(const StoredRow& row)>;
  void forEachCommitted(const Visit& visit, Brine::Store::Position* position = nullptr) const;
  // The entry handle that the stored row was last written with; 0 when there is no row.
  uint64_t rowEntryHandle(std::string_view key) const;
  uint64_t rowSequence(std::string_view key) const;  // of its last change; 0 when there is no row
  // Both return the sequence number of the change, which the forwarding agents' reports carry. In a
  // batch every call is a change (so that a report always comes). Outside a batch they return 0 for
  // a row that equals the stored one, and for the deletion of an absent row: these change nothing.
  // Throws Brine::StoreError when there is no room; the row is then as it was.
  uint64_t rowIs(const Row& row, uint64_t entryHandle, std::string_view attachment = {});
  uint64_t rowDel(std::string_view key, uint64_t entryHandle);
  size_t rowCount() const;
  uint32_t number() const;  // of the table; another one once its rows were dropped

  struct Impl;

 private:
  friend class DatabaseImpl;
  std::unique_ptr<Impl> impl_;
};

struct DatabaseOptions {
  std::string doorbellPath;                         // Unix socket; replaced when stale
  size_t journalChangesWithoutSubscriber = 100000;  // beyond it a late subscriber takes a snapshot
  std::chrono::milliseconds attachWithin{10000};    // of connecting; else disconnected
};

// One a process. Writes outside a batch are committed at the end of the outermost activity scope.
// Threads: call with the activity lock held, on any thread; callbacks run with the lock held,
// on the reactor or in stopListening().
// Errors: a lost commit is a returned reason, or a call of the loss handler; only create() and
// watch() throw.
// Lifetime: loop, store and observers outlive it; interfaces that outlive it are not ready.
class Database {
 public:
  // The store must outlive this. Throws Brine::StoreError, std::system_error for the socket.
  static std::unique_ptr<Database> create(Vela::ReactorLoop& loop, Brine::Store& store,
                                          const DatabaseOptions& options);
  virtual ~Database() = default;

  virtual Brine::Store& store() = 0;
  // Gives access to table `name` through `interface`. `persistent` false: rows of an earlier
  // process are dropped. A surviving table of another type keeps its number and rows if they are
  // rows of that type (types/KeptRows.h) and all forwarding agents learn of it; else it is emptied,
  // and that is traced.
  virtual void bindInterface(const Vela::Ptr<ArTableInterface>& interface, const std::string& name,
                             bool persistent) = 0;
  // The attachments of a table's rows that were dropped since the table has another type now, or no
  // interface, with the entry handles. They stay until they are removed.
  using Kept = std::vector<std::pair<uint64_t, std::string>>;
  virtual Kept kept(const std::string& table) = 0;
  virtual std::vector<std::string> keptTables() const = 0;
  virtual void keptDel(const std::string& table) = 0;
  // Removes the surviving tables without an interface; returns their names.
  virtual std::vector<std::string> removeUnboundTables() = 0;
  // Takes the rows of such tables, in place of keeping their attachments, with the definition of
  // their type. Null: none does.
  using RowTaker = std::function<void(const std::string& table, const std::string& definition,
                                      const StoredRow& row)>;
  virtual void rowTakerIs(RowTaker taker) = 0;
  // Removes the rows of all tables with an interface, at once. Commits.
  virtual void emptyTables() = 0;

  // A batch gathers every write of the store, rows and other records alike, until batchEnd().
  virtual void batchBegin() = 0;
  // Commits. It fails on a full state directory: the store is then as at batchBegin().
  virtual Vela::Outcome batchEnd() = 0;
  virtual bool inBatch() const = 0;
  // Commits the writes outside a batch now, not at the end of the scope: for writes whose loss the
  // caller must know of. When it fails they are lost.
  virtual Vela::Outcome commit() = 0;
  // The changes of the batch, ascending, when it stands or falls as a whole; call before
  // batchEnd(). Should this process end before settle(), the next one's create() undoes them.
  // Throws Brine::StoreError when the store has no room for that, std::length_error for too many
  // changes.
  virtual void wholeBatchIs(std::span<const uint64_t> changes) = 0;
  // How many changes of a former process's batch create() has undone.
  virtual size_t undoneAtStart() const = 0;
  // The outcome of the last batch is known, and what failed is put back.
  virtual void settle() = 0;

  // Whether followers are to look for the changes of the batch that was begun, and of those that
  // come soon after it, rather than sleep.
  virtual void urgentIs(bool isUrgent) = 0;
  // Lets followers program the changes of the batch so far while the next ones are made. They tell
  // of them, and let packets see them, once they are committed. Not for a batch that stands or
  // falls as a whole.
  virtual void showAhead() = 0;
  // For the thread of a batch, which waits for the followers' word on it. From listen(), before
  // batchEnd(), to stopListening(), they need send no message for it.
  virtual void listen() = 0;
  // Tells the observer of all that they have said. Nothing when it does not listen.
  virtual void stopListening() = 0;
  // Looks for a moment until they have programmed the batch; call it without the lock. Returns
  // whether they have.
  virtual bool lookForProgrammed() const = 0;
  // Makes the row or record as it was before the change of that sequence number, which must not be
  // settled. Returns the sequence number of the change that this makes; 0: it was so already, or
  // its table is gone. Needs no room.
  virtual uint64_t undo(uint64_t sequence) = 0;
  // Told, with the reason, when changes of rows or tables outside a batch are lost in a commit at
  // the end of a scope. Nobody is told of lost writes of other records: look for them afterwards.
  virtual void lossHandlerIs(std::function<void(const std::string& reason)> handler) = 0;
  // Lets the writes of this thread's outermost activity scope outside a batch be committed on the
  // reactor's next turn, or by the next batch, rather than at the scope's end. For writes that a
  // restart can do without: nobody is told of their loss.
  virtual void commitSoon() = 0;
  virtual uint64_t lastSequence() const = 0;

  // Rows that follow from others: see TableWatch.h. One observer, which outlives this or is taken
  // away with null.
  virtual void commitObserverIs(CommitObserver* observer) = 0;
  // Commits first, so that the watch misses no change. Null: no such table is bound and
  // initialised. Not within a batch (std::logic_error). Throws StoreError when the commit fails.
  virtual std::unique_ptr<TableWatch> watch(const std::string& table) = 0;

  using Observer = SubscriberObserver;
  virtual void observerIs(Observer observer) = 0;

  // Asks all forwarding agents that answer such questions, and calls back once; false, and no call,
  // when there is none. The answer may never come: the caller sees to the time.
  virtual bool ask(const Question& question, AnswerHandler handler) = 0;
  virtual std::vector<SubscriberInfo> subscribers() const = 0;
  virtual uint64_t droppedMessages() const = 0;  // malformed, from a subscriber
};

}  // namespace Lattice
