// One opened LMDB environment and its transactions.
#pragma once

#include <lmdb.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/brine/StoreTerms.h"

namespace Brine {

struct FileFinding;

// Pages that a transaction can come to need.
struct Room {
  uint64_t pages = 0;
  uint64_t inARow = 0;  // beside these, of large records
  uint64_t spare = 0;   // must be there as well, and is left for a later transaction
};

// Readers and the writer may be on different threads; each transaction belongs to one thread. For
// how it is opened and shared see SharedEnvironment.h.
class Environment {
 public:
  // Both throw StoreError. A file that is no sound environment is not touched.
  static std::unique_ptr<Environment> openToWrite(const StoreOptions& options,
                                                  FileFinding* finding);
  static std::unique_ptr<Environment> openToRead(const StoreOptions& options);
  ~Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  MDB_env* handle() const { return env_; }
  const std::string& directory() const { return directory_; }
  size_t pageSize() const { return pageSize_; }

  // The writer writes into the mapping, which on a full tmpfs would end in SIGBUS. So before a
  // transaction writes, this allocates memory behind the last page in use for all the pages that
  // the transaction can come to need, those for the lists of free pages included. When memory runs
  // out, free pages serve, which have some. Throws StoreError{full}.
  void allocateRoom(const Room& room);

  // LMDB wants one transaction at a time to open or close database handles.
  std::mutex handlesMutex;  // guards `handles`
  std::map<std::string, MDB_dbi, std::less<>> handles;

 private:
  Environment(MDB_env* env, std::string directory) : env_(env), directory_(std::move(directory)) {}
  static std::unique_ptr<Environment> openWith(const StoreOptions& options, unsigned mode);
  uint64_t usableFreePages();
  bool hasOwnLockFile();
  MDB_env* env_;
  std::string directory_;
  size_t pageSize_ = 4096;
  bool writesIntoMapping_ = false;
  uint64_t allocatedPages_ = 0;  // from the file's begin
};

// Aborts unless commit() ran.
class Transaction {
 public:
  Transaction(Environment& environment, unsigned flags);  // throws StoreError
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  MDB_txn* handle() const { return txn_; }
  void commit();  // throws StoreError

 private:
  Environment& environment_;
  MDB_txn* txn_ = nullptr;
};

// A read transaction that is set aside between uses and taken up again cheaply.
class ReadTransaction {
 public:
  explicit ReadTransaction(Environment& environment) : environment_(environment) {}
  ~ReadTransaction();
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  MDB_txn* begin();  // returns the running transaction if there is one; throws StoreError
  void setAside();

 private:
  Environment& environment_;
  MDB_txn* txn_ = nullptr;
  bool active_ = false;
};

}  // namespace Brine
