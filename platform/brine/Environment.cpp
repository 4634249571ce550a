#include "platform/brine/Environment.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/brine/Failure.h"
#include "platform/brine/FileCheck.h"
#include "platform/brine/Hash.h"
#include "platform/brine/Records.h"
#include "platform/brine/StateDirectory.h"

namespace Brine {
namespace {

// The data have been checked by then, so LMDB complains of the lock file, which it replaces unless
// some process uses it.
[[noreturn]] void lockUnusable(const std::string& directory) {
  throw StoreError(Trouble::unavailable,
                   lockPath(directory) +
                       " is in use and damaged, or of another version of LMDB; "
                       "stop the processes that use it, or remove it");
}

// Readers map the lock file; on a full tmpfs, touching a page it does not have yet would end in
// SIGBUS. So its pages are allocated before LMDB maps it. False when the file system cannot do so.
bool allocateLockFile(const std::string& directory) {
  constexpr off_t bytes = 32 * 1024;  // about 500 readers
  const std::string path = lockPath(directory);
  const int file = openedFile(directory, path);
  const int error = fallocate(file, 0, 0, bytes) == 0 ? 0 : errno;
  ::close(file);
  if (error != 0 && error != EOPNOTSUPP) failed(error, directory, path);
  return error == 0;
}

// A commit that a reader has begun upon stays as it is; a head may change under the look at it, so
// that damage counts only when the writer has gone no further.
void requireSoundCommit(Environment& environment) {
  constexpr int triesBesideAWriter = 50;
  for (int i = 0;; ++i) {
    const Transaction txn(environment, MDB_RDONLY);
    const size_t commit = mdb_txn_id(txn.handle());
    const std::string damage = damageOfCommit(environment.directory(), commit);
    if (damage.empty()) return;
    MDB_envinfo info{};
    check(mdb_env_info(environment.handle(), &info), environment.directory());
    if (info.me_last_txnid == commit || i == triesBesideAWriter) {
      damaged(environment.directory(), damage);
    }
  }
}

// LMDB tells of each reader in a line of its process, its thread and its commit, or "-".
int lookAtReader(const char* line, void* oldest) {
  const std::string text(line);
  const auto at = text.find_last_not_of(" \n");
  const auto begin = at == std::string::npos ? at : text.find_last_of(' ', at);
  if (begin == std::string::npos) return 0;
  char* end = nullptr;
  const uint64_t commit = std::strtoull(text.c_str() + begin, &end, 10);
  if (end == text.c_str() + at + 1)
    *static_cast<uint64_t*>(oldest) = std::min(*static_cast<uint64_t*>(oldest), commit);
  return 0;
}

}  // namespace

std::unique_ptr<Environment> Environment::openToWrite(const StoreOptions& options,
                                                      FileFinding* finding) {
  *finding = checkFile(options.directory, dataPath(options.directory));
  if (!finding->damage.empty()) damaged(options.directory, finding->damage);
  const bool intoMapping = allocateLockFile(options.directory);
  close(openedFile(options.directory, dataPath(options.directory)));  // LMDB would follow a link
  auto opened = openWith(options, intoMapping ? MDB_WRITEMAP : 0);
  if (!opened->hasOwnLockFile()) {
    opened.reset();
    unlink(lockPath(options.directory).c_str());  // its present users keep it
    allocateLockFile(options.directory);
    opened = openWith(options, intoMapping ? MDB_WRITEMAP : 0);
  }
  opened->writesIntoMapping_ = intoMapping;
  return opened;
}

// LMDB believes the lock file in use about which commit is the newest. A process that opened the
// store while its file was being replaced may use one that counts the former file's commits. A
// writer that was killed at the end of a commit leaves a lock file that is behind by that one.
bool Environment::hasOwnLockFile() {
  const Transaction txn(*this, MDB_RDONLY);
  MDB_envinfo info{};
  check(mdb_env_info(env_, &info), directory_);
  const uint64_t counted = mdb_txn_id(txn.handle());
  return counted == info.me_last_txnid || counted + 1 == info.me_last_txnid;
}

std::unique_ptr<Environment> Environment::openToRead(const StoreOptions& options) {
  const std::string damage = damageOfHead(options.directory);
  if (!damage.empty()) damaged(options.directory, damage);
  auto opened = openWith(options, MDB_RDONLY);
  requireSoundCommit(*opened);
  return opened;
}

std::unique_ptr<Environment> Environment::openWith(const StoreOptions& options, unsigned mode) {
  MDB_env* env = nullptr;
  check(mdb_env_create(&env), options.directory);
  std::unique_ptr<Environment> opened(new Environment(env, options.directory));
  check(mdb_env_set_maxdbs(env, options.maxTables + 1), options.directory);
  check(mdb_env_set_mapsize(env, options.maxBytes), options.directory);
  // No syncing: the state directory is memory, and survives processes but not the machine.
  const unsigned flags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NOSYNC | MDB_NOMETASYNC | MDB_NORDAHEAD;
  const std::string path = dataPath(options.directory);
  const int error = mdb_env_open(env, path.c_str(), flags | mode, 0600);
  if (error == MDB_INVALID || error == MDB_VERSION_MISMATCH) lockUnusable(options.directory);
  check(error, options.directory);
  MDB_stat stat{};
  check(mdb_env_stat(env, &stat), options.directory);
  opened->pageSize_ = stat.ms_psize;
  return opened;
}

void Environment::allocateRoom(const Room& room) {
  MDB_envinfo info{};
  check(mdb_env_info(env_, &info), directory_);
  // The lists name each free page with 8 bytes, and may be rewritten as a whole.
  const uint64_t lists = info.me_last_pgno / 200 + 32;
  const uint64_t least = info.me_last_pgno + 1 + room.inARow + lists;
  const uint64_t wanted = least + room.pages + room.spare + lists;
  if (room.spare > 0 && wanted > info.me_mapsize / pageSize_ &&
      usableFreePages() < room.pages + room.spare) {
    failed(MDB_MAP_FULL, directory_);
  }
  if (!writesIntoMapping_) return;  // then LMDB tells in time
  if (wanted <= allocatedPages_) return;
  int file = -1;
  check(mdb_env_get_fd(env_, &file), directory_);
  // Some more than wanted, if there is, so that not every commit has to ask.
  for (const uint64_t upTo : {wanted + 64, wanted}) {
    const auto from = static_cast<off_t>(allocatedPages_ * pageSize_);
    if (fallocate(file, 0, from, static_cast<off_t>(upTo * pageSize_) - from) == 0) {
      allocatedPages_ = upTo;
      return;
    }
    if (errno != ENOSPC) break;
  }
  const int error = errno;
  if (error == ENOSPC && least <= allocatedPages_ && usableFreePages() >= room.pages + room.spare) {
    return;
  }
  failed(error, directory_);
}

// Free pages of commits that no reader sees any more.
uint64_t Environment::usableFreePages() {
  constexpr MDB_dbi freeDatabase = 0;
  uint64_t oldest = UINT64_MAX;
  Transaction txn(*this, MDB_RDONLY);  // is among the readers, with the newest commit
  mdb_reader_list(env_, lookAtReader, &oldest);
  MDB_cursor* cursor = nullptr;
  check(mdb_cursor_open(txn.handle(), freeDatabase, &cursor), directory_);
  const std::unique_ptr<MDB_cursor, void (*)(MDB_cursor*)> owner(cursor, mdb_cursor_close);
  uint64_t pages = 0;
  MDB_val commit;
  MDB_val list;
  while (mdb_cursor_get(cursor, &commit, &list, MDB_NEXT) == MDB_SUCCESS) {
    if (loaded<uint64_t>(asBytes(commit).data()) >= oldest) break;
    pages += loaded<uint64_t>(asBytes(list).data());
  }
  return pages;
}

Environment::~Environment() { mdb_env_close(env_); }

Transaction::Transaction(Environment& environment, unsigned flags) : environment_(environment) {
  check(mdb_txn_begin(environment.handle(), nullptr, flags, &txn_), environment.directory());
}

Transaction::~Transaction() {
  if (txn_) mdb_txn_abort(txn_);
}

void Transaction::commit() {
  check(mdb_txn_commit(std::exchange(txn_, nullptr)), environment_.directory());
}

ReadTransaction::~ReadTransaction() {
  if (txn_) mdb_txn_abort(txn_);
}

MDB_txn* ReadTransaction::begin() {
  if (active_) return txn_;
  const int error =
      txn_ ? mdb_txn_renew(txn_) : mdb_txn_begin(environment_.handle(), nullptr, MDB_RDONLY, &txn_);
  check(error, environment_.directory());
  active_ = true;
  return txn_;
}

void ReadTransaction::setAside() {
  if (active_) mdb_txn_reset(txn_);
  active_ = false;
}

}  // namespace Brine
