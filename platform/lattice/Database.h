// The agent's side of the shared tables: typed interfaces that write rows, the journal of their
// changes, and the doorbell socket on which forwarding agents follow and report.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/Store.h"
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
  std::optional<Row> row(std::string_view key) const;  // the write set included
  // The entry handle that the stored row was last written with; 0 when there is no row.
  uint64_t rowEntryHandle(std::string_view key) const;
  uint64_t rowSequence(std::string_view key) const;  // of its last change; 0 when there is no row
  // Both return the sequence number of the change, which the forwarding agents' reports carry. In a
  // batch every call is a change (so that a report always comes). Outside a batch they return 0 for
  // a row that equals the stored one, and for the deletion of an absent row: these change nothing.
  uint64_t rowIs(const Row& row, uint64_t entryHandle);
  uint64_t rowDel(std::string_view key, uint64_t entryHandle);
  size_t rowCount() const;

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
// Threads: call with the activity lock held, on any thread; callbacks run on the reactor with the
// lock held.
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
  // Gives access to table `name` through `interface`. A surviving table of another definition is
  // emptied, and that is traced. `persistent` false: rows of an earlier process are dropped.
  virtual void bindInterface(const Vela::Ptr<ArTableInterface>& interface, const std::string& name,
                             bool persistent) = 0;
  // Removes the surviving tables without an interface; returns their names.
  virtual std::vector<std::string> removeUnboundTables() = 0;

  // A batch gathers every write of the store, rows and other records alike, until batchEnd().
  virtual void batchBegin() = 0;
  // Commits. It fails on a full state directory: the store is then as at batchBegin().
  virtual Vela::Outcome batchEnd() = 0;
  virtual bool inBatch() const = 0;
  // Commits the writes outside a batch now, not at the end of the scope: for writes whose loss the
  // caller must know of. When it fails they are lost.
  virtual Vela::Outcome commit(Brine::Store::Filling filling) = 0;
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

  virtual std::vector<SubscriberInfo> subscribers() const = 0;
  virtual uint64_t droppedMessages() const = 0;  // malformed, from a subscriber
};

}  // namespace Lattice
