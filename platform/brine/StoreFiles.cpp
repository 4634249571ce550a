#include "platform/brine/StoreFiles.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/brine/Failure.h"
#include "platform/brine/StateDirectory.h"

namespace Brine {
namespace {

namespace fs = std::filesystem;

constexpr const char* earlierBoot = "earlier-boot";

// Every boot of a machine whose state directory is on a disk leaves a store: one of them is kept.
std::string placeFor(const std::string& base, Trouble why) {
  std::error_code ignored;
  if (why == Trouble::otherBoot) {
    fs::remove_all(base + earlierBoot, ignored);
    return base + earlierBoot;
  }
  unsigned number = 1;
  while (fs::exists(fs::symlink_status(base + "damaged-" + std::to_string(number)))) ++number;
  return base + "damaged-" + std::to_string(number);
}

}  // namespace

WriterLock::WriterLock(const std::string& directory) {
  file_ = openedFile(directory, writerPath(directory));
  if (flock(file_, LOCK_EX | LOCK_NB) == 0) return;
  const int error = errno;
  ::close(file_);
  if (error != EWOULDBLOCK) failed(error, directory, writerPath(directory));
  throw StoreError(Trouble::busy, "another process writes to the state directory " + directory +
                                      "; stop it or choose another directory");
}

WriterLock::~WriterLock() { ::close(file_); }

std::string moveAside(const std::string& directory, Trouble why) {
  int refusal = EACCES;
  for (const std::string& base : {directory + ".", directory + "/"}) {
    std::string aside = placeFor(base, why);
    if (mkdir(aside.c_str(), 0700) != 0) {
      refusal = errno;
      continue;
    }
    std::error_code error;
    fs::rename(dataPath(directory), dataPath(aside), error);
    if (error && error != std::errc::no_such_file_or_directory) {
      fs::remove(aside);
      continue;
    }
    fs::rename(lockPath(directory), lockPath(aside), error);
    if (error) fs::remove(lockPath(directory), error);
    return aside;
  }
  failed(refusal, directory, directory);
}

}  // namespace Brine
