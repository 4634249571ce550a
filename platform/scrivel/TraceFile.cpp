#include "platform/scrivel/TraceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

namespace Scrivel {
namespace {

namespace fs = std::filesystem;
constexpr size_t deadFilesKept = 3;
constexpr std::string_view suffix = ".scv";

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::string fileName(std::string prefix) {
  const size_t place = prefix.find("%d");
  if (place != std::string::npos) prefix.replace(place, 2, std::to_string(getpid()));
  if (!prefix.ends_with(suffix)) prefix += suffix;
  return prefix;
}

bool inUse(const fs::path& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return true;  // not ours to judge
  const bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0;
  close(fd);
  return locked;
}

// What "%d" became in an earlier process is a run of digits.
bool isFromPrefix(std::string_view name, const std::string& prefix) {
  const size_t place = prefix.find("%d");
  if (place == std::string::npos) return false;
  const std::string_view head = std::string_view(prefix).substr(0, place);
  std::string tail = prefix.substr(place + 2);
  if (!tail.ends_with(suffix)) tail += suffix;
  if (!name.starts_with(head) || !name.ends_with(tail)) return false;
  if (name.size() <= head.size() + tail.size()) return false;
  const auto pid = name.substr(head.size(), name.size() - head.size() - tail.size());
  return std::all_of(pid.begin(), pid.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Every restart leaves a file of some megabytes of memory behind; the newest ones tell most.
void removeOldFiles(const std::string& directory, const std::string& prefix) {
  std::vector<std::pair<fs::file_time_type, fs::path>> dead;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    if (!isFromPrefix(entry.path().filename().string(), prefix) || inUse(entry.path())) continue;
    dead.emplace_back(entry.last_write_time(error), entry.path());
  }
  std::sort(dead.rbegin(), dead.rend());
  for (size_t i = deadFilesKept; i < dead.size(); ++i) fs::remove(dead[i].second, error);
}

// An earlier run's traces under the same name are kept once.
void moveAside(const std::string& path) {
  const std::string aside = path.substr(0, path.size() - suffix.size()) + ".old.scv";
  std::error_code error;
  fs::rename(path, aside, error);
}

int createdFile(const std::string& path, size_t bytes) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) fail(errno, "cannot create trace file " + path);
  flock(fd, LOCK_EX | LOCK_NB);
  const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  if (error != 0) {
    unlink(path.c_str());
    close(fd);
    fail(error, "cannot reserve " + std::to_string(bytes >> 10) + " KiB for trace file " + path);
  }
  return fd;
}

uint64_t nowNs() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

void fillHeader(TraceFile& file) {
  file.header->rings = file.rings;
  file.header->ringSize = file.ringSize;
  file.header->maxStringLength = file.maxStringLength;
  file.header->pid = getpid();
  file.header->startNs = nowNs();
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(file.header->magic, fileMagic, sizeof fileMagic);
}

}  // namespace

SlotHeader* TraceFile::slot(uint32_t ringNumber, uint64_t ticket) const {
  char* slots = reinterpret_cast<char*>(ring[ringNumber] + 1);
  return reinterpret_cast<SlotHeader*>(slots + (ticket & (ringSize - 1)) * slotSize);
}

TraceFile* createTraceFile(const Options& options) {
  auto file = std::make_unique<TraceFile>();
  file->rings = std::clamp(options.rings, 1u, maxRings);
  file->ringSize = std::bit_ceil(std::clamp(options.ringSize, 2u, maxRingSize));
  file->maxStringLength = std::min<uint32_t>(options.maxStringLength, slotCapacity);

  std::string directory = options.directory;
  if (const char* env = getenv("SCRIVELDIR"); directory.empty() && env) directory = env;
  if (directory.empty()) directory = ".";
  std::error_code ignored;  // creating the file says it better
  fs::create_directories(directory, ignored);
  removeOldFiles(directory, options.filePrefix);
  file->path = directory + "/" + fileName(options.filePrefix);
  moveAside(file->path);

  const int fd = createdFile(file->path, file->bytes());  // stays open: its lock says we live
  void* base = mmap(nullptr, file->bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) fail(errno, "cannot map trace file " + file->path);
  char* bytes = static_cast<char*>(base);
  file->header = reinterpret_cast<FileHeader*>(bytes);
  file->handles = reinterpret_cast<HandleEntry*>(bytes + sizeof(FileHeader));
  for (uint32_t n = 0; n < file->rings; ++n) {
    file->ring.push_back(reinterpret_cast<RingHeader*>(bytes + ringOffset(file->ringSize, n)));
  }
  fillHeader(*file);
  return file.release();
}

}  // namespace Scrivel
