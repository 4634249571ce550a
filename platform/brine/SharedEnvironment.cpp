#include "platform/brine/SharedEnvironment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/brine/Failure.h"
#include "platform/brine/FileCheck.h"
#include "platform/brine/StoreHead.h"

namespace Brine {
namespace {

using FileId = std::pair<dev_t, ino_t>;

// Pages; in a smaller file there is nothing to be gained.
constexpr uint64_t leastToCompact = 256;

struct Shared {
  Environment* environment = nullptr;
  size_t users = 0;
  Purpose purpose = Purpose::read;
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

bool copiedTo(const std::string& path, MDB_env* env) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0) return false;
  const int error = mdb_env_copyfd2(env, file, MDB_CP_COMPACT);
  close(file);
  return error == MDB_SUCCESS;
}

// A copy without the free pages takes the file's place, whole, from one moment to the next. Readers
// of the former file keep it, with the lock file that belongs to it, until they open the store
// again. Without room for the copy all stays as it is.
std::unique_ptr<Environment> compact(std::unique_ptr<Environment> former,
                                     const StoreOptions& options) {
  const std::string path = dataPath(options.directory);
  const std::string copy = path + "-compact";
  unlink(copy.c_str());  // of a process that was killed here
  if (!copiedTo(copy, former->handle()) || !checkFile(options.directory, copy).damage.empty()) {
    unlink(copy.c_str());
    return former;
  }
  former.reset();
  unlink(lockPath(options.directory).c_str());
  if (rename(copy.c_str(), path.c_str()) != 0) unlink(copy.c_str());
  FileFinding finding;
  return Environment::openToWrite(options, &finding);
}

}  // namespace

std::shared_ptr<Environment> sharedEnvironment(const StoreOptions& options, Purpose purpose) {
  const std::lock_guard guard(registryMutex());
  const std::string& directory = options.directory;
  requireRegularFiles(directory, purpose);
  bool readHere = false;
  if (const auto id = fileId(dataPath(directory))) {
    const auto known = registry().find(*id);
    readHere = known != registry().end();
    if (readHere && (purpose == Purpose::read || known->second.purpose == Purpose::write)) {
      return joined(*id, known->second);
    }
  } else if (purpose == Purpose::read) {
    failed(ENOENT, directory);
  }
  FileFinding finding;
  auto opened = purpose == Purpose::write ? Environment::openToWrite(options, &finding)
                                          : Environment::openToRead(options);
  checkOrCreate(*opened, purpose, options.bootId);
  if (finding.free > finding.pages / 2 && finding.pages >= leastToCompact && !readHere) {
    opened = compact(std::move(opened), options);
  }
  const auto id = fileId(dataPath(directory));
  if (!id) failed(ENOENT, directory);
  Shared& entry = registry()[*id];
  if (entry.environment) return opened;  // a reader's stands there already
  entry = {opened.release(), 0, purpose};
  return joined(*id, entry);
}

}  // namespace Brine
