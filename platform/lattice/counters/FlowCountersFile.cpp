#include "platform/lattice/counters/FlowCountersFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/brine/Layout.h"
#include "platform/brine/StateDirectory.h"
#include "platform/brine/StoreFile.h"

namespace Lattice {
namespace {

[[noreturn]] void failed(int error, const CountsFolder& folder, const char* file) {
  if (error == ENOENT) {
    throw Brine::StoreError(
        Brine::Trouble::unwritable,
        "the folder " + folder.path() + " was removed while counts were written to it; try again");
  }
  Brine::failed(error, folder.path(), folder.path() + "/" + file);
}

// A write to memory that is mapped but not there would end in SIGBUS. Returns an error code.
int allocate(int file, size_t bytes) {
  int error = 0;
  do {
    error = posix_fallocate(file, 0, static_cast<off_t>(bytes));
  } while (error == EINTR);
  return error;
}

Vela::UniqueFd makeFile(const CountsFolder& folder, size_t bytes) {
  unlinkat(folder.descriptor(), newCountsName, 0);
  Vela::UniqueFd file(
      openat(folder.descriptor(), newCountsName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) failed(errno, folder, newCountsName);
  if (const int error = allocate(file.get(), bytes)) {
    unlinkat(folder.descriptor(), newCountsName, 0);
    failed(error, folder, newCountsName);
  }
  return file;
}

// With all pages at once: a commit should not wait for them one by one.
uint8_t* map(const CountsFolder& folder, int file, size_t bytes) {
  void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
  if (base != MAP_FAILED) return static_cast<uint8_t*>(base);
  const int error = errno;
  unlinkat(folder.descriptor(), newCountsName, 0);
  failed(error, folder, newCountsName);
}

void store(CountSlot& to, const CountSlot& from) {
  Brine::store(to.hash.low, from.hash.low);
  Brine::store(to.hash.high, from.hash.high);
  Brine::store(to.count.bytes, from.count.bytes);
  Brine::store(to.count.packets, from.count.packets);
  Brine::store(to.check, from.check);
}

}  // namespace

CountsFolder::CountsFolder(std::string path) : path_(std::move(path)) {
  Brine::prepareDirectory(path_);
  folder_ = Vela::UniqueFd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder_) Brine::failed(errno, path_, path_);
  const std::string lock = path_ + "/" + countsLockName;
  lock_ = Vela::UniqueFd(Brine::openedFile(path_, lock));
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return;
  if (errno != EWOULDBLOCK) Brine::failed(errno, path_, lock);
  throw Brine::StoreError(Brine::Trouble::busy,
                          "another process writes the counts in " + path_ +
                              "; stop it, or give this forwarding agent another name");
}

FlowCountersFile::FlowCountersFile(const CountsFolder& folder, uint64_t slots)
    : folder_(folder),
      slots_(slots),
      file_(makeFile(folder, bytes())),
      base_(map(folder, file_.get(), bytes())),
      array_(reinterpret_cast<CountSlot*>(base_ + slotOffset(0))) {
  head().magic = countsMagic;
  head().version = countsVersion;
  head().slots = slots;
  head().checksum = headChecksum(head());
}

FlowCountersFile::~FlowCountersFile() { munmap(base_, bytes()); }

void FlowCountersFile::takePlace() {
  const int folder = folder_.descriptor();
  if (renameat(folder, newCountsName, folder, countsName) == 0) return;
  failed(errno, folder_, countsName);
}

void FlowCountersFile::sayReplaced() { Brine::store(head().replaced, 1); }

void sayReplaced(int formerFile) {
  const uint64_t one = 1;
  // When it fails, readers find the new file at their next look at the folder.
  static_cast<void>(pwrite(formerFile, &one, sizeof one, offsetof(CountsHead, replaced)) == 0);
}

bool FlowCountersFile::isInPlace() const {
  struct stat mine {};
  struct stat there {};
  return fstat(file_.get(), &mine) == 0 &&
         lstat((folder_.path() + "/" + countsName).c_str(), &there) == 0 &&
         mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

// Half of the slots may have counts. With deleted ones, which lengthen a search as counts do, up to
// five eighths are in use.
bool FlowCountersFile::hasRoomFor(uint64_t more) const {
  return 2 * (counts_ + more) <= slots_ && 8 * (counts_ + deleted_ + more) <= 5 * slots_;
}

FlowCountersFile::Place FlowCountersFile::find(FlowHash hash) const {
  const uint64_t first = firstSlot(hash, slots_);
  uint64_t free = slots_;
  uint64_t number = first;
  for (uint64_t seen = 0; seen < slots_; ++seen, number = after(number)) {
    const CountSlot& here = slot(number);
    if (here.hash == hash) return {number, true};
    if (!here.hasCount() && free == slots_) free = number;
    if (here.isEmpty()) break;
  }
  // Nothing is free only in a file that somebody else has written to.
  return {free == slots_ ? first : free, false};
}

void FlowCountersFile::write(uint64_t number, CountSlot slot) {
  slot.check = slotCheck(slot, number);
  Brine::store(head().writtenNumber, number + 1);
  store(head().written, slot);
  if (slot.isEmpty()) slot.check = 0;
  store(array_[number], slot);
}

void FlowCountersFile::countIs(FlowHash hash, const FlowCount& count) {
  const Place place = find(hash);
  if (!place.found) {
    if (!slot(place.number).isEmpty() && deleted_ > 0) --deleted_;
    ++counts_;
  }
  write(place.number, {hash, count});
}

void FlowCountersFile::countDel(FlowHash hash) {
  const Place place = find(hash);
  if (!place.found) return;
  --counts_;
  ++deleted_;
  write(place.number, {{deletedSlot}});
  // Deleted slots with nothing behind them hold no search up.
  if (!slot(after(place.number)).isEmpty()) return;
  for (uint64_t number = place.number; slot(number).hash.low == deletedSlot && deleted_ > 0;
       number = before(number)) {
    write(number, {});
    --deleted_;
  }
}

void FlowCountersFile::copyCountsTo(FlowCountersFile& other) const {
  for (uint64_t number = 0; number < slots_; ++number) {
    const CountSlot& here = slot(number);
    if (here.hasCount() && isSound(here, number)) other.countIs(here.hash, here.count);
  }
}

}  // namespace Lattice
