#include "platform/brine/Environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/brine/FileCheck.h"
#include "platform/brine/Records.h"

namespace Brine {
namespace {

using FileId = std::pair<dev_t, ino_t>;

struct Shared {
  Environment* environment = nullptr;
  size_t users = 0;
  Environment::Mode mode = Environment::Mode::read;
};

std::mutex& registryMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::map<FileId, Shared>& registry() {
  static auto* map = new std::map<FileId, Shared>;
  return *map;
}

std::optional<FileId> fileId(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileId{status.st_dev, status.st_ino};
}

// The registry's mutex is held, also while LMDB closes: a second opening in between would lose its
// locks to that close.
std::shared_ptr<Environment> joined(FileId id, Shared& shared) {
  ++shared.users;
  return {shared.environment, [id](Environment* environment) {
            const std::lock_guard guard(registryMutex());
            const auto entry = registry().find(id);
            if (entry == registry().end() || entry->second.environment != environment) {
              delete environment;  // was opened beside the registered one
            } else if (--entry->second.users == 0) {
              registry().erase(entry);
              delete environment;
            }
          }};
}

[[noreturn]] void damaged(const std::string& directory, const std::string& what) {
  throw StoreError(Trouble::damaged, "the store in " + directory + " is damaged (" + what +
                                         "); restart with a rebuilt store, or remove " +
                                         dataPath(directory));
}

// Readers map the lock file; on a full tmpfs, touching a page it does not have yet would end in
// SIGBUS. So its pages are allocated before LMDB maps it. False when the file system cannot do so.
bool allocateLockFile(const std::string& directory) {
  constexpr off_t bytes = 32 * 1024;  // about 500 readers
  const int file = ::open(lockPath(directory).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) failed(errno, directory);
  const int error = fallocate(file, 0, 0, bytes) == 0 ? 0 : errno;
  ::close(file);
  if (error != 0 && error != EOPNOTSUPP) failed(error, directory);
  return error == 0;
}

// What the writer sees to before LMDB opens the files. Answers whether memory can be allocated
// there ahead of its use.
bool prepared(const std::string& directory) {
  const std::string damage = damageOf(dataPath(directory));
  if (!damage.empty()) damaged(directory, damage);
  return allocateLockFile(directory);
}

// The layout version, written by whoever creates the store and asked for by all others.
void checkVersion(Environment& environment) {
  const std::lock_guard guard(environment.handlesMutex);
  const Transaction txn(environment, MDB_RDONLY);
  MDB_dbi dbi = 0;
  MDB_stat stat{};
  const int error = mdb_dbi_open(txn.handle(), std::string(metaTable).c_str(), 0, &dbi);
  if (error == MDB_NOTFOUND) {
    check(mdb_stat(txn.handle(), 1, &stat), environment.directory());
    if (stat.ms_entries == 0) throw StoreError(Trouble::missing, "no store yet");
    damaged(environment.directory(), "it is no store of this program");
  }
  check(error, environment.directory());
  Bytes version;
  if (recordFound(txn.handle(), dbi, asBytes(layoutKey), &version) != MDB_SUCCESS ||
      version.size() != sizeof layoutVersion) {
    damaged(environment.directory(), "it has no layout version");
  }
  uint32_t number = 0;
  std::memcpy(&number, version.data(), sizeof number);
  if (number != layoutVersion) {
    throw StoreError(Trouble::wrongVersion,
                     "the store in " + environment.directory() + " has layout version " +
                         std::to_string(number) + ", this program reads " +
                         std::to_string(layoutVersion) + "; restart with a rebuilt store");
  }
}

void writeVersion(Environment& environment) {
  const std::lock_guard guard(environment.handlesMutex);
  environment.allocateRoom(0);
  Transaction txn(environment, 0);
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn.handle(), std::string(metaTable).c_str(), MDB_CREATE, &dbi),
        environment.directory());
  MDB_val key = asVal(asBytes(layoutKey));
  uint32_t number = layoutVersion;
  MDB_val value{sizeof number, &number};
  check(mdb_put(txn.handle(), dbi, &key, &value, 0), environment.directory());
  txn.commit();
}

void checkOrCreate(Environment& environment, Environment::Mode mode) {
  try {
    checkVersion(environment);
  } catch (const StoreError& error) {
    if (error.trouble != Trouble::missing) throw;
    if (mode == Environment::Mode::read) failed(ENOENT, environment.directory());
    writeVersion(environment);
  }
}

}  // namespace

void failed(int error, const std::string& directory) {
  const std::string where = " in the state directory " + directory;
  switch (error) {
    case ENOSPC:
    case EIO:  // LMDB's word for a write cut short by a full file system
    case EDQUOT:
    case ENOMEM:
    case MDB_MAP_FULL:
    case MDB_TXN_FULL:
      throw StoreError(Trouble::full,
                       "no room" + where + "; free space in it or enlarge its tmpfs");
    case MDB_DBS_FULL:
      throw StoreError(Trouble::full, "too many tables" + where + "; raise the number of tables");
    case MDB_READERS_FULL:
      throw StoreError(Trouble::full, "too many readers" + where + "; stop some of them");
    case ENOENT:
      throw StoreError(Trouble::missing, "no store" + where + "; start the agent first");
    case EACCES:
    case EPERM:
    case EROFS:
    case ENOTDIR:
      throw StoreError(Trouble::unwritable, std::string("cannot use the store") + where + ": " +
                                                std::strerror(error) +
                                                "; check its owner and permissions");
    case MDB_VERSION_MISMATCH:
      throw StoreError(Trouble::wrongVersion, "the store" + where +
                                                  " was written by another version of LMDB; "
                                                  "restart with a rebuilt store");
    default:
      damaged(directory, mdb_strerror(error));
  }
}

std::string dataPath(const std::string& directory) { return directory + "/brine.mdb"; }
std::string lockPath(const std::string& directory) { return dataPath(directory) + "-lock"; }

std::shared_ptr<Environment> Environment::open(const StoreOptions& options, Mode mode) {
  const std::lock_guard guard(registryMutex());
  const std::string path = dataPath(options.directory);
  if (const auto id = fileId(path)) {
    const auto known = registry().find(*id);
    if (known != registry().end() && (mode == Mode::read || known->second.mode == Mode::write)) {
      return joined(*id, known->second);
    }
  } else if (mode == Mode::read) {
    failed(ENOENT, options.directory);
  }
  const bool intoMapping = mode == Mode::write && prepared(options.directory);

  MDB_env* env = nullptr;
  check(mdb_env_create(&env), options.directory);
  std::unique_ptr<Environment> opened(new Environment(env, options.directory));
  check(mdb_env_set_maxdbs(env, options.maxTables + 1), options.directory);
  check(mdb_env_set_mapsize(env, options.maxBytes), options.directory);
  // No syncing: the state directory is memory, and survives processes but not the machine.
  unsigned flags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NOSYNC | MDB_NOMETASYNC | MDB_NORDAHEAD;
  if (mode == Mode::read) flags |= MDB_RDONLY;
  if (intoMapping) flags |= MDB_WRITEMAP;
  opened->writesIntoMapping_ = intoMapping;
  check(mdb_env_open(env, path.c_str(), flags, 0600), options.directory);
  MDB_stat stat{};
  check(mdb_env_stat(env, &stat), options.directory);
  opened->pageSize_ = stat.ms_psize;
  checkOrCreate(*opened, mode);
  const auto id = fileId(path);
  if (!id) failed(ENOENT, options.directory);
  Shared& entry = registry()[*id];
  if (entry.environment) return opened;  // a reader's stands there already
  entry = {opened.release(), 0, mode};
  return joined(*id, entry);
}

void Environment::allocateRoom(uint64_t pages) {
  if (!writesIntoMapping_) return;  // then LMDB tells in time
  MDB_envinfo info{};
  check(mdb_env_info(env_, &info), directory_);
  // The lists name each free page with 8 bytes, and may be written anew as a whole.
  const uint64_t wanted = info.me_last_pgno + 1 + pages + info.me_last_pgno / 200 + 32;
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
  failed(errno, directory_);
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

MDB_txn* ReadTransaction::begun() {
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
