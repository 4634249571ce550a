#include "platform/brine/Failure.h"

#include <fcntl.h>
#include <lmdb.h>
#include <unistd.h>

#include <cerrno>

#include "platform/brine/StoreTerms.h"

namespace Brine {
namespace {

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

}  // namespace

std::string dataPath(const std::string& directory) { return directory + "/brine.mdb"; }
std::string lockPath(const std::string& directory) { return dataPath(directory) + "-lock"; }
std::string writerPath(const std::string& directory) { return directory + "/brine.writer"; }

void damaged(const std::string& directory, const std::string& what) {
  throw StoreError(Trouble::damaged, "the store in " + directory + " is damaged (" + what + ")");
}

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

}  // namespace Brine
