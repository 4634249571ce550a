#include "platform/brine/StoreFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include "platform/brine/StateDirectory.h"

namespace Brine {
namespace {

constexpr size_t addressableBytes = size_t{UINT32_MAX} * refUnit / pageSize * pageSize;

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

std::string newPath(const std::string& directory) { return dataPath(directory) + ".new"; }

// Closes at the end of its scope.
class OpenFile {
 public:
  explicit OpenFile(int file) : file_(file) {}
  ~OpenFile() {
    if (file_ >= 0) close(file_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int get() const { return file_; }
  int release() { return std::exchange(file_, -1); }

 private:
  int file_;
};

// Returns an error code. Where the file system cannot allocate ahead, zeros do it.
int allocated(int file, off_t at, off_t bytes) {
  int error = 0;
  do {
    error = fallocate(file, 0, at, bytes) == 0 ? 0 : errno;
  } while (error == EINTR);
  if (error != EOPNOTSUPP) return error;
  static constexpr uint8_t zeros[pageSize] = {};
  for (off_t done = 0; done < bytes; done += pageSize) {
    if (pwrite(file, zeros, pageSize, at + done) != pageSize) return errno == 0 ? ENOSPC : errno;
  }
  return 0;
}

uint64_t headChecksum(const FileHead& head) {
  return hashOf({reinterpret_cast<const uint8_t*>(&head), offsetof(FileHead, checksum)}, 0);
}

std::string thisBoot(const StoreOptions& options) {
  return options.bootId.empty() ? currentBootId(options.directory) : options.bootId;
}

FileHead newHead(const StoreOptions& options) {
  std::random_device random;
  FileHead head;
  head.magic = storeMagic;
  head.version = layoutVersion;
  head.changes = options.changes;
  head.seed = uint64_t{random()} << 32 | random();
  thisBoot(options).copy(head.boot, sizeof head.boot);
  for (char& byte : head.identity) byte = static_cast<char>(random());
  head.checksum = headChecksum(head);
  head.sums[0].sequence = stamped(0, 0);
  uint64_t* words = &head.words.committed;
  for (uint64_t salt = 1; salt <= 6; ++salt) words[salt - 1] = stamped(0, salt);
  head.words.end = stamped(firstExtentPage(head.changes), static_cast<uint64_t>(CommitWord::end));
  return head;
}

// The file gets its name once it is complete.
void makeFile(const StoreOptions& options) {
  const std::string path = newPath(options.directory);
  unlink(path.c_str());
  const OpenFile file(openedFile(options.directory, path));
  const auto bytes = static_cast<off_t>(firstExtentPage(options.changes) * pageSize);
  if (const int error = allocated(file.get(), 0, bytes)) failed(error, options.directory, path);
  const FileHead head = newHead(options);
  if (pwrite(file.get(), &head, sizeof head, 0) != sizeof head) {
    failed(errno, options.directory, path);
  }
  if (rename(path.c_str(), dataPath(options.directory).c_str()) != 0) {
    failed(errno, options.directory, path);
  }
}

// Reads before anything is mapped: a file that was cut off would end in SIGBUS.
FileHead checkedHead(int file, const std::string& directory) {
  struct stat status {};
  FileHead head;
  const ssize_t got = pread(file, &head, sizeof head, 0);
  if (got < 0) failed(errno, directory);
  // After the head: a writer makes the file longer before it moves the end.
  if (fstat(file, &status) != 0) failed(errno, directory);
  if (got != sizeof head || head.magic != storeMagic) damaged(directory, "it has no head");
  if (head.version != layoutVersion) {
    throw StoreError(Trouble::wrongVersion, "the store in " + directory + " has layout version " +
                                                std::to_string(head.version) +
                                                ", this program needs " +
                                                std::to_string(layoutVersion));
  }
  const bool isPowerOfTwo = head.changes != 0 && (head.changes & (head.changes - 1)) == 0;
  if (head.checksum != headChecksum(head) || !isPowerOfTwo) damaged(directory, "its head");
  const uint64_t end = head.words.end;
  if (!isStamped(end, static_cast<uint64_t>(CommitWord::end)) ||
      numberIn(end) < firstExtentPage(head.changes) ||
      numberIn(end) > addressableBytes / pageSize) {
    damaged(directory, "its end");
  }
  if (numberIn(end) > static_cast<uint64_t>(status.st_size) / pageSize) {
    damaged(directory, "it is cut off");
  }
  return head;
}

void requireThisBoot(const FileHead& head, const StoreOptions& options) {
  const std::string boot(head.boot, strnlen(head.boot, sizeof head.boot));
  if (boot == thisBoot(options)) return;
  throw StoreError(Trouble::otherBoot,
                   "the store in " + options.directory + " was made in another boot");
}

uint8_t* mapped(int file, size_t bytes, int protection, const std::string& directory) {
  void* base = mmap(nullptr, bytes, protection, MAP_SHARED | MAP_NORESERVE, file, 0);
  if (base == MAP_FAILED) failed(errno, directory);
  return static_cast<uint8_t*>(base);
}

}  // namespace

std::string dataPath(const std::string& directory) { return directory + "/brine.store"; }
std::string writerPath(const std::string& directory) { return directory + "/brine.writer"; }
std::string formerDataPath(const std::string& directory) { return directory + "/brine.mdb"; }

void damaged(const std::string& directory, const std::string& what) {
  throw StoreError(Trouble::damaged, "the store in " + directory + " is damaged (" + what + ")");
}

void failed(int error, const std::string& directory, const std::string& named) {
  const std::string where = " in the state directory " + directory;
  const std::string file = named.empty() ? dataPath(directory) : named;
  if (error == ENOSPC || error == EDQUOT || error == EFBIG) {
    throw StoreError(Trouble::full, "no room" + where + "; free space in it or enlarge its tmpfs");
  }
  if (error == ENOENT) {
    throw StoreError(Trouble::missing, "no store" + where + "; start the agent first");
  }
  const bool refused = error == EACCES || error == EPERM || error == EROFS || error == ENOTDIR ||
                       error == EISDIR || error == ELOOP;
  throw StoreError(refused ? Trouble::unwritable : Trouble::unavailable,
                   "cannot use " + file + ": " + std::strerror(error) + " (errno " +
                       std::to_string(error) + "); " + wayOut(error));
}

StoreFile::StoreFile(int file, uint8_t* base, size_t mappedBytes, std::string directory)
    : file_(file),
      base_(base),
      ring_(reinterpret_cast<RingEntry*>(base + pageSize)),
      mappedBytes_(mappedBytes),
      directory_(std::move(directory)) {}

StoreFile::StoreFile(StoreFile&& other) noexcept
    : file_(std::exchange(other.file_, -1)),
      base_(std::exchange(other.base_, nullptr)),
      ring_(other.ring_),
      mappedBytes_(other.mappedBytes_),
      directory_(std::move(other.directory_)) {}

StoreFile::~StoreFile() {
  if (base_ != nullptr) munmap(base_, mappedBytes_);
  if (file_ >= 0) close(file_);
}

StoreFile StoreFile::openToWrite(const StoreOptions& options) {
  const std::string& directory = options.directory;
  struct stat status {};
  const bool isThere = lstat(dataPath(directory).c_str(), &status) == 0;
  if (!isThere && lstat(formerDataPath(directory).c_str(), &status) == 0) {
    throw StoreError(Trouble::wrongVersion,
                     "the store in " + directory + " has a layout of former versions");
  }
  if (!isThere) makeFile(options);
  OpenFile file(openedFile(directory, dataPath(directory)));
  const FileHead head = checkedHead(file.get(), directory);
  requireThisBoot(head, options);
  const size_t bytes = std::clamp(options.maxBytes / pageSize * pageSize,
                                  numberIn(head.words.end) * pageSize, addressableBytes);
  uint8_t* base = mapped(file.get(), bytes, PROT_READ | PROT_WRITE, directory);
  return {file.release(), base, bytes, directory};
}

StoreFile StoreFile::openToRead(const std::string& directory) {
  OpenFile file(open(dataPath(directory).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (file.get() < 0) failed(errno, directory);
  checkedHead(file.get(), directory);
  // As far as a writer's file can come to reach.
  uint8_t* base = mapped(file.get(), addressableBytes, PROT_READ, directory);
  return {file.release(), base, addressableBytes, directory};
}

uint64_t StoreFile::word(CommitWord which) const {
  const auto salt = static_cast<uint64_t>(which);
  const uint64_t word = load((&head().words.committed)[salt - 1]);
  if (!isStamped(word, salt)) damaged(directory_, "word " + std::to_string(salt) + " of its head");
  return numberIn(word);
}

void StoreFile::wordIs(CommitWord which, uint64_t number) {
  const auto salt = static_cast<uint64_t>(which);
  store((&head().words.committed)[salt - 1], stamped(number, salt));
}

std::optional<RingEntry> StoreFile::change(uint64_t sequence) const {
  const RingEntry& place = ring(sequence);
  const uint64_t before = load(place.sequence);
  const RingEntry entry = place;
  std::atomic_thread_fence(std::memory_order_acquire);
  if (load(place.sequence) != before || before != stamped(sequence, entrySalt(entry))) {
    return std::nullopt;
  }
  return entry;
}

void StoreFile::allocatePages(uint64_t first, uint64_t count) {
  if ((first + count) * pageSize > mappedBytes_) failed(ENOSPC, directory_);
  const int error =
      allocated(file_, static_cast<off_t>(first * pageSize), static_cast<off_t>(count * pageSize));
  if (error == 0) {
    // All at once, rather than a page fault each. A kernel that does not know how leaves it to
    // them.
    madvise(base_ + first * pageSize, count * pageSize, MADV_POPULATE_WRITE);
    return;
  }
  freePages(first, count);  // some may have been allocated
  failed(error, directory_);
}

void StoreFile::freePages(uint64_t first, uint64_t count) {
  fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(first * pageSize),
            static_cast<off_t>(count * pageSize));
}

}  // namespace Brine
