#include "cli/switch/SwitchDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/brine/StateDirectory.h"
#include "platform/brine/Store.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* lockName = "switch.lock";
constexpr std::chrono::milliseconds lockPeriod{20};  // between two tries

bool isSameFile(int descriptor, const std::string& path) {
  struct stat held {};
  struct stat there {};
  return fstat(descriptor, &held) == 0 && stat(path.c_str(), &there) == 0 &&
         held.st_dev == there.st_dev && held.st_ino == there.st_ino;
}

bool isOnlyLock(const std::string& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.path().filename() != lockName) return false;
  }
  return true;
}

// The lock names its holder, for those who come too late. 0: not known.
pid_t holderOf(int lock) {
  char text[16] = {};
  return pread(lock, text, sizeof text - 1, 0) > 0 ? std::atoi(text) : 0;
}

void setHolder(int lock) {
  const std::string text = fmt::format("{}\n", getpid());
  if (ftruncate(lock, 0) == 0) (void)!pwrite(lock, text.data(), text.size(), 0);
}

}  // namespace

std::string defaultSwitchDirectory(uint32_t deviceId, uint16_t serverPort) {
  const bool hasRun = access("/run", W_OK) == 0 && Brine::isMemory("/run");
  const std::string port =
      serverPort == SwitchDirectory::usualPort ? "" : fmt::format("-{}", serverPort);
  return fmt::format("{}/korvel-switch-{}{}", hasRun ? "/run" : "/dev/shm", deviceId, port);
}

SwitchDirectory::SwitchDirectory(std::string path, bool fresh, std::chrono::milliseconds patience)
    : path_(std::move(path)) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  try {
    if (fresh) requireSwitchs();
    while (!tryHold()) {
      const pid_t holder = holderOf(lock_.get());
      const bool isAlive = holder > 0 && (kill(holder, 0) == 0 || errno != ESRCH);
      if (isAlive || std::chrono::steady_clock::now() > deadline) failBeside(holder);
      std::this_thread::sleep_for(lockPeriod);
    }
    setHolder(lock_.get());
    if (fresh) removeContents();
    takenUp_ = !isOnlyLock(path_);
  } catch (const std::system_error& e) {
    throw SwitchDirectoryError(
        fmt::format("cannot use the state directory {}: {}", path_, e.code().message()));
  } catch (const Brine::StoreError& e) {
    throw SwitchDirectoryError(e.what());
  }
}

void SwitchDirectory::failBeside(pid_t holder) const {
  throw SwitchDirectoryError(fmt::format(
      "another switch{} runs in {}; choose another --device-id, --grpc-server-addr or --state-dir",
      holder > 0 ? fmt::format(", pid {},", holder) : "", path_));
}

// A former switch may remove the directory while this one waits for it: then the lock is another
// file.
bool SwitchDirectory::tryHold() {
  Brine::prepareDirectory(path_);
  lock_ = Vela::UniqueFd(Brine::openedFile(path_, file(lockName)));
  return flock(lock_.get(), LOCK_EX | LOCK_NB) == 0 && isSameFile(lock_.get(), file(lockName));
}

void SwitchDirectory::requireSwitchs() const {
  if (!fs::exists(path_) || fs::is_empty(path_) || fs::exists(file(lockName))) return;
  throw SwitchDirectoryError(fmt::format(
      "--fresh would remove files from {} that no switch has made; choose another --state-dir",
      path_));
}

void SwitchDirectory::removeContents() const {
  for (const auto& entry : fs::directory_iterator(path_)) {
    if (entry.path().filename() != lockName) fs::remove_all(entry.path());
  }
}

void SwitchDirectory::remove() const {
  std::error_code error;  // a directory that stays is taken up by the next switch
  fs::remove_all(path_, error);
}
