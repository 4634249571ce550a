#include "journal/Queue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Journal {
namespace {

constexpr uint64_t layoutMark = 0x31514a5645524f4b;  // "KOREVJQ1"
constexpr size_t pageBytes = 4096;
constexpr size_t reservedPart = 8;  // of a half, for outcomes

[[noreturn]] void fail(const std::string& path, int error) {
  throw std::system_error(error, std::generic_category(), "the journal's queue " + path);
}

size_t wholePages(size_t bytes) { return (bytes + pageBytes - 1) / pageBytes * pageBytes; }

Time now() {
  return std::chrono::time_point_cast<Time::duration>(std::chrono::system_clock::now());
}

}  // namespace

// What a process finds that comes after one that was killed at any instant.
struct Queue::Half {
  std::atomic<uint64_t> used;  // bytes; stored once they are there
  std::atomic<uint64_t> lost;
  std::atomic<uint64_t> gapSequence;
  std::atomic<uint8_t> reason;
};

struct Queue::Head {
  uint64_t mark;
  uint64_t halfBytes;
  std::atomic<uint64_t> filling;  // which half
  Half halves[2];
};

size_t Queue::halfBytesFor(size_t halfBytes) { return wholePages(halfBytes); }

size_t Queue::halfBytesAt(const std::string& path) {
  constexpr uint64_t mostHalfBytes = uint64_t{1} << 30;  // far beyond those that we make
  const Vela::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  uint64_t begin[2] = {};  // mark and halfBytes
  struct stat status {};
  if (!fd || pread(fd.get(), begin, sizeof begin, 0) != sizeof begin) return 0;
  const uint64_t halfBytes = begin[1];
  if (begin[0] != layoutMark || halfBytes > mostHalfBytes || fstat(fd.get(), &status) != 0)
    return 0;
  const bool isWhole = static_cast<uint64_t>(status.st_size) == pageBytes + 2 * halfBytes;
  return isWhole ? halfBytes : 0;
}

Queue::Queue(const std::string& path, size_t halfBytes)
    : halfBytes_(wholePages(halfBytes)), mappedBytes_(pageBytes + 2 * halfBytes_) {
  static_assert(sizeof(Head) <= pageBytes);
  fd_ = Vela::UniqueFd(
      open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!fd_) fail(path, errno);
  if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) fail(path, errno == EWOULDBLOCK ? EBUSY : errno);
  // All of it at once: a page that is not there would end the process later.
  if (ftruncate(fd_.get(), static_cast<off_t>(mappedBytes_)) != 0) fail(path, errno);
  const int error = posix_fallocate(fd_.get(), 0, static_cast<off_t>(mappedBytes_));
  if (error != 0) {
    unlink(path.c_str());
    fail(path, error);
  }
  void* const memory =
      mmap(nullptr, mappedBytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd_.get(), 0);
  if (memory == MAP_FAILED) fail(path, errno);
  head_ = static_cast<Head*>(memory);
  const bool isOurs = head_->mark == layoutMark && head_->halfBytes == halfBytes_ &&
                      head_->filling < 2 && half(0).used <= halfBytes_ &&
                      half(1).used <= halfBytes_;
  if (isOurs) return;
  std::memset(memory, 0, pageBytes);
  head_->halfBytes = halfBytes_;
  head_->mark = layoutMark;
}

Queue::~Queue() { munmap(head_, mappedBytes_); }

Queue::Half& Queue::half(size_t which) const { return head_->halves[which]; }

char* Queue::bytesOf(size_t which) const {
  return reinterpret_cast<char*>(head_) + pageBytes + which * halfBytes_;
}

bool Queue::isEmpty() const {
  const Half& filling = half(head_->filling);
  return filling.used == 0 && filling.lost == 0;
}

// Once one is lost, all requests are until the half is written: a gap has one place.
uint64_t Queue::append(const Draft& draft) {
  const size_t size = draft.size();
  const bool isOutcome = draft.kind() == RecordKind::outcome;
  const std::lock_guard lock(mutex_);
  const size_t which = head_->filling;
  Half& filling = half(which);
  const size_t used = filling.used.load(std::memory_order_relaxed);
  const size_t room = isOutcome ? halfBytes_ : halfBytes_ - halfBytes_ / reservedPart;
  const bool wasEmpty = isEmpty();
  uint64_t sequence = 0;
  if (used + size > room || (filling.lost != 0 && !isOutcome)) {
    lose(size > room ? GapReason::tooLarge : GapReason::queueFull);
  } else {
    sequence = nextSequence_++;
    draft.write(sequence, now(), bytesOf(which) + used);
    filling.used.store(used + size, std::memory_order_release);
  }
  const bool isHalfFull = used < halfBytes_ / 2 && used + size >= halfBytes_ / 2;
  if (isIdle_ && (wasEmpty || isHalfFull)) filled_.notify_one();
  return sequence;
}

void Queue::lose(GapReason reason) {
  Half& filling = half(head_->filling);
  if (filling.lost == 0) filling.reason = static_cast<uint8_t>(reason);
  ++filling.lost;
}

bool Queue::wait(std::chrono::milliseconds moment) {
  std::unique_lock lock(mutex_);
  isIdle_ = true;
  filled_.wait(lock, [&] { return !isEmpty() || isEnding_; });
  if (!isEnding_) {
    filled_.wait_for(lock, moment,
                     [&] { return half(head_->filling).used >= halfBytes_ / 2 || isEnding_; });
  }
  isIdle_ = false;
  return !isEmpty();
}

// A half that a killed process had taken comes first: it is older.
Queue::Taken Queue::take() {
  const std::lock_guard lock(mutex_);
  const size_t filling = head_->filling;
  const Half& former = half(1 - filling);
  if (former.used == 0 && former.lost == 0) {
    Half& taken = half(filling);
    if (taken.lost != 0) taken.gapSequence = nextSequence_++;
    head_->filling = 1 - filling;
    takenUpTo_ = nextSequence_;
  }
  const size_t which = 1 - head_->filling;
  const Half& taken = half(which);
  return {.records = {bytesOf(which), taken.used},
          .lost = taken.lost,
          .reason = static_cast<GapReason>(taken.reason.load()),
          .gapSequence = taken.gapSequence};
}

void Queue::takenIs() {
  const std::lock_guard lock(mutex_);
  Half& taken = half(1 - head_->filling);
  taken.lost = 0;
  taken.used = 0;
  writtenUpTo_ = takenUpTo_;
  written_.notify_all();
}

void Queue::lastSequenceIs(uint64_t sequence) {
  const std::lock_guard lock(mutex_);
  for (const size_t which : {0, 1}) {
    std::string_view left(bytesOf(which), half(which).used);
    while (const size_t size = recordBytes(left)) {
      sequence = std::max(sequence, sequenceOf(left));
      left.remove_prefix(size);
    }
    sequence = std::max<uint64_t>(sequence, half(which).gapSequence);
  }
  nextSequence_ = takenUpTo_ = writtenUpTo_ = sequence + 1;
}

void Queue::endIs() {
  const std::lock_guard lock(mutex_);
  isEnding_ = true;
  filled_.notify_one();
}

bool Queue::flush(std::chrono::milliseconds most) {
  std::unique_lock lock(mutex_);
  const uint64_t upTo = nextSequence_;
  return written_.wait_for(lock, most, [&] { return isEmpty() || writtenUpTo_ >= upTo; });
}

}  // namespace Journal
