#include "platform/brine/Environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <utility>

#include "platform/brine/FileCheck.h"
#include "platform/brine/Hash.h"
#include "platform/brine/Records.h"
#include "platform/brine/StateDirectory.h"

namespace Brine {
namespace {

using FileId = std::pair<dev_t, ino_t>;

// Pages; in a smaller file there is nothing to be gained.
constexpr uint64_t leastToCompact = 256;

struct Shared {
  Environment* environment = nullptr;
  size_t users = 0;
  Environment::Mode mode = Environment::Mode::read;
};

std::mutex& registryMutex() {  // guards registry()
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
  throw StoreError(Trouble::damaged, "the store in " + directory + " is damaged (" + what + ")");
}

// LMDB locks a byte of the lock file by the process's number, which processes in two PID namespaces
// may share. Closing the file drops this process's locks on it; the opening has failed anyway.
bool isPidTaken(const std::string& directory) {
  const int file = open(lockPath(directory).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (file < 0) return false;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = getpid();
  lock.l_len = 1;
  const bool taken = fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  close(file);
  return taken;
}

std::string pidTaken(const std::string& directory) {
  return "a process of another PID namespace uses " + dataPath(directory) +
         " under this process's number, " + std::to_string(getpid()) + " (errno " +
         std::to_string(EAGAIN) +
         "); let the containers of the agent and of the forwarding agents share one PID namespace";
}

// The data have been looked at by then, so LMDB's complaint is of the lock file, which it makes
// anew unless somebody uses it.
[[noreturn]] void lockUnusable(const std::string& directory) {
  throw StoreError(Trouble::unavailable,
                   lockPath(directory) +
                       " is in use and damaged, or of another version of LMDB; "
                       "stop the processes that use it, or remove it");
}

const char* wayOut(int error) {
  switch (error) {
    case EMFILE:
      return "raise the process's limit of open files (ulimit -n)";
    case ENFILE:
      return "raise the system's limit of open files (sysctl fs.file-max)";
    case ENOMEM:
    case ENOBUFS:
      return "free memory, or raise the process's limit (ulimit -v)";
    case EACCES:
    case EPERM:
      return "check its owner and permissions";
    case EROFS:
      return "mount it writable";
    case ENOTDIR:
      return "name a directory that is one or can be made";
    case ELOOP:
    case EISDIR:
      return "remove it";
    case EIO:
      return "look for errors of the device with dmesg, and for room with df";
    default:
      return "the store is as it was; try again";
  }
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

bool copiedTo(const std::string& path, MDB_env* env) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0) return false;
  const int error = mdb_env_copyfd2(env, file, MDB_CP_COMPACT);
  close(file);
  return error == MDB_SUCCESS;
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

// LMDB's list of tables has no checksums; ours has.
void requireTables(Environment& environment, MDB_txn* txn, MDB_dbi meta) {
  std::set<std::string, std::less<>> listed, there;
  const auto list = [&](Bytes key, Bytes) {
    const std::string_view name = asText(key);
    if (name.starts_with(tableKeyPrefix)) listed.emplace(name.substr(tableKeyPrefix.size()));
    return true;
  };
  bool sound = true;
  const auto damagedOne = [&](Bytes key) { sound &= !asText(key).starts_with(tableKeyPrefix); };
  check(visitRecords(txn, meta, list, {}, damagedOne), environment.directory());
  const auto add = [&](std::string_view name) {
    if (name != metaTable) there.emplace(name);
    return true;
  };
  check(visitNames(txn, add), environment.directory());
  if (!sound || listed != there) damaged(environment.directory(), "it has lost tables");
}

// The layout version is written with the store, and asked for by all others. Returns the boot that
// the store was written in; empty when that cannot be read.
std::string checkedHead(Environment& environment) {
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
  MDB_val key = asVal(asBytes(layoutKey));
  MDB_val version;
  if (mdb_get(txn.handle(), dbi, &key, &version) != MDB_SUCCESS ||
      version.mv_size != sizeof layoutVersion) {
    damaged(environment.directory(), "it has no layout version");
  }
  const auto number = loaded<uint32_t>(asBytes(version).data());
  if (number != layoutVersion) {
    throw StoreError(Trouble::wrongVersion, "the store in " + environment.directory() +
                                                " has layout version " + std::to_string(number) +
                                                ", this program reads " +
                                                std::to_string(layoutVersion));
  }
  requireTables(environment, txn.handle(), dbi);
  Bytes boot;
  if (findRecord(txn.handle(), dbi, asBytes(bootKey), &boot) != MDB_SUCCESS) return {};
  return std::string(asText(boot));
}

void writeHead(Environment& environment, const std::string& boot) {
  const std::lock_guard guard(environment.handlesMutex);
  environment.allocateRoom({});
  Transaction txn(environment, 0);
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn.handle(), std::string(metaTable).c_str(), MDB_CREATE, &dbi),
        environment.directory());
  MDB_val key = asVal(asBytes(layoutKey));
  uint32_t number = layoutVersion;
  MDB_val value{sizeof number, &number};
  check(mdb_put(txn.handle(), dbi, &key, &value, 0), environment.directory());
  MDB_cursor* cursor = nullptr;
  check(mdb_cursor_open(txn.handle(), dbi, &cursor), environment.directory());
  check(putRecord(cursor, asBytes(bootKey), asBytes(boot)), environment.directory());
  txn.commit();
}

// A store on a disk outlives the machine's memory, from which LMDB's pages come to it in any order.
void requireThisBoot(Environment& environment, const std::string& written,
                     const std::string& boot) {
  if (written == boot || written.empty() || boot.empty()) return;
  throw StoreError(Trouble::otherBoot,
                   "the store in " + environment.directory() +
                       " was written before this boot of the machine, and may not be whole");
}

void checkOrCreate(Environment& environment, Environment::Mode mode, const std::string& bootId) {
  const std::string boot = bootId.empty() ? currentBootId() : bootId;
  try {
    const std::string written = checkedHead(environment);
    if (mode == Environment::Mode::write) requireThisBoot(environment, written, boot);
  } catch (const StoreError& error) {
    if (error.trouble != Trouble::missing) throw;
    if (mode == Environment::Mode::read) failed(ENOENT, environment.directory());
    writeHead(environment, boot);
  }
}

}  // namespace

void failed(int error, const std::string& directory, const std::string& named) {
  const std::string where = " in the state directory " + directory;
  const std::string file = named.empty() ? dataPath(directory) : named;
  switch (error) {
    case ENOSPC:
    case EDQUOT:
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
    case MDB_VERSION_MISMATCH:
      throw StoreError(Trouble::wrongVersion,
                       "the store" + where + " was written by another version of LMDB");
    case MDB_CORRUPTED:
    case MDB_INVALID:
    case MDB_PAGE_NOTFOUND:
      damaged(directory, mdb_strerror(error));
    case EAGAIN:
      if (isPidTaken(directory)) throw StoreError(Trouble::unavailable, pidTaken(directory));
  }
  const bool refused = error == EACCES || error == EPERM || error == EROFS || error == ENOTDIR ||
                       error == EISDIR || error == ELOOP;
  throw StoreError(refused ? Trouble::unwritable : Trouble::unavailable,
                   "cannot use " + file + ": " + mdb_strerror(error) + " (errno " +
                       std::to_string(error) + "); " + wayOut(error));
}

std::string dataPath(const std::string& directory) { return directory + "/brine.mdb"; }
std::string lockPath(const std::string& directory) { return dataPath(directory) + "-lock"; }
std::string writerPath(const std::string& directory) { return directory + "/brine.writer"; }

std::shared_ptr<Environment> Environment::open(const StoreOptions& options, Mode mode) {
  const std::lock_guard guard(registryMutex());
  const std::string& directory = options.directory;
  requireRegularFiles(directory, mode == Mode::write ? Purpose::write : Purpose::read);
  bool readHere = false;
  if (const auto id = fileId(dataPath(directory))) {
    const auto known = registry().find(*id);
    readHere = known != registry().end();
    if (readHere && (mode == Mode::read || known->second.mode == Mode::write)) {
      return joined(*id, known->second);
    }
  } else if (mode == Mode::read) {
    failed(ENOENT, directory);
  }
  FileFinding finding;
  auto opened = mode == Mode::write ? openToWrite(options, &finding) : openToRead(options);
  checkOrCreate(*opened, mode, options.bootId);
  if (finding.free > finding.pages / 2 && finding.pages >= leastToCompact && !readHere) {
    opened = compact(std::move(opened), options);
  }
  const auto id = fileId(dataPath(directory));
  if (!id) failed(ENOENT, directory);
  Shared& entry = registry()[*id];
  if (entry.environment) return opened;  // a reader's stands there already
  entry = {opened.release(), 0, mode};
  return joined(*id, entry);
}

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

// A copy without the free pages takes the file's place, whole, from one moment to the next. Readers
// of the former file keep it, with the lock file that belongs to it, until they open the store
// again. Without room for the copy all stays as it is.
std::unique_ptr<Environment> Environment::compact(std::unique_ptr<Environment> former,
                                                  const StoreOptions& options) {
  const std::string path = dataPath(options.directory);
  const std::string copy = path + "-compact";
  unlink(copy.c_str());  // of a process that was killed here
  if (!copiedTo(copy, former->env_) || !checkFile(options.directory, copy).damage.empty()) {
    unlink(copy.c_str());
    return former;
  }
  former.reset();
  unlink(lockPath(options.directory).c_str());
  if (rename(copy.c_str(), path.c_str()) != 0) unlink(copy.c_str());
  FileFinding finding;
  return openToWrite(options, &finding);
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
