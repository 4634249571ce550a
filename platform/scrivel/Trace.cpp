// The registry of handles, and the storing of records.
#include "platform/scrivel/Trace.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>
#include <vector>

#include "platform/scrivel/Levels.h"
#include "platform/scrivel/TraceFile.h"

namespace Scrivel {
namespace {

std::atomic<uint32_t> off{0};  // handles without a file point here; never written
std::atomic<TraceFile*> theFile{nullptr};

uint32_t threadId() {
  static thread_local const auto id = static_cast<uint32_t>(syscall(SYS_gettid));
  return id;
}

uint64_t nowNs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

// Knows every handle of the process and gives it its entry in the file.
class Registry {
 public:
  static Registry& get() {
    static auto* registry = new Registry;  // handles in libraries may go after static destructors
    return *registry;
  }

  void add(TraceHandle* handle) {
    const std::lock_guard guard(mutex_);
    handles_.push_back(handle);
    if (TraceFile* file = theFile.load()) enter(*file, *handle);
  }

  void remove(TraceHandle* handle) {
    const std::lock_guard guard(mutex_);
    std::erase(handles_, handle);
  }

  void fileIs(TraceFile* file, Levels levels) {
    const std::lock_guard guard(mutex_);
    levels_ = std::move(levels);
    if (file) files_.push_back(file);
    theFile.store(file, std::memory_order_release);
    for (TraceHandle* handle : handles_) {
      if (file) {
        enter(*file, *handle);
      } else {
        handle->mask_ = &off;
      }
    }
  }

  void levelsAre(const Levels& levels) {
    const std::lock_guard guard(mutex_);
    levels_ = levels;
    TraceFile* file = theFile.load();
    if (!file) return;
    const uint32_t count = std::min(file->header->handleCount.load(), maxHandles);
    for (uint32_t i = 0; i < count; ++i) {
      HandleEntry& entry = file->handles[i];
      entry.mask =
          levels.mask(std::string_view(entry.name, strnlen(entry.name, sizeof entry.name)));
    }
  }

 private:
  // Handles of one name share an entry: `korvel trace` knows them by name only.
  void enter(TraceFile& file, TraceHandle& handle) {
    const uint32_t count = std::min(file.header->handleCount.load(), maxHandles);
    uint32_t number = 0;
    while (number < count &&
           strncmp(file.handles[number].name, handle.name_, sizeof(HandleEntry::name)) != 0) {
      ++number;
    }
    if (number == maxHandles) return;  // stays off
    HandleEntry& entry = file.handles[number];
    if (number == count) {
      std::memcpy(entry.name, handle.name_, strnlen(handle.name_, sizeof entry.name));
      entry.mask = maskInForce(file, handle.name_);
      file.header->handleCount.store(count + 1, std::memory_order_release);
    }
    handle.number_ = static_cast<uint16_t>(number);
    handle.mask_.store(&entry.mask, std::memory_order_release);
  }

  // `korvel trace --set` leaves its setting in the file for handles that come later.
  uint32_t maskInForce(const TraceFile& file, const char* name) const {
    const std::string text(file.header->levels,
                           strnlen(file.header->levels, sizeof file.header->levels));
    if (const auto set = Levels::parse(text)) {
      if (const auto mask = set->named(name)) return *mask;
    }
    return levels_.mask(name);
  }

  std::mutex mutex_;  // guards all below; taken last
  std::vector<TraceHandle*> handles_;
  std::vector<TraceFile*> files_;  // all ever opened: a thread may still be storing a record
  Levels levels_;
};

TraceHandle::TraceHandle(const char* name) : name_(name), mask_(&off) { Registry::get().add(this); }

TraceHandle::~TraceHandle() { Registry::get().remove(this); }

void initialize(const Options& options) {
  if (getenv("SCRIVEL_DISABLE")) return;
  const char* text = getenv("KORVEL_TRACE");
  std::string trouble;
  auto levels = Levels::parse(text ? text : "*/0", &trouble);
  if (!levels) {
    fprintf(stderr, "KORVEL_TRACE: %s; tracing level 0 only\n", trouble.c_str());
    levels = Levels::parse("*/0");
  }
  try {
    Registry::get().fileIs(createTraceFile(options), *levels);
  } catch (const std::system_error& e) {
    throw TraceError(std::string(e.what()) + "; nothing is traced");
  }
}

void shutdown() { Registry::get().fileIs(nullptr, Levels()); }

std::string currentFile() {
  const TraceFile* file = theFile.load();
  return file ? file->path : std::string();
}

void flush() {
  if (const TraceFile* file = theFile.load()) msync(file->header, file->bytes(), MS_SYNC);
}

void levelsAre(std::string_view text) {
  std::string trouble;
  const auto levels = Levels::parse(text, &trouble);
  if (!levels) throw TraceError(trouble);
  Registry::get().levelsAre(*levels);
}

Recorder::Recorder(const TraceHandle& handle, unsigned level) {
  const TraceFile* file = theFile.load(std::memory_order_acquire);
  if (!file) return;
  const uint32_t ringNumber = std::min<uint32_t>(level, file->rings - 1);
  RingHeader& ring = *file->ring[ringNumber];
  ticket_ = ring.next.fetch_add(1, std::memory_order_relaxed);
  SlotHeader* slot = file->slot(ringNumber, ticket_);
  uint64_t state = slot->state.load(std::memory_order_relaxed);
  // A thread that was overtaken by a whole turn of the ring keeps its slot; we go without.
  if ((state & 1) || !slot->state.compare_exchange_strong(state, 2 * (ticket_ + 1) + 1,
                                                          std::memory_order_acquire)) {
    ring.lost.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  std::atomic_thread_fence(std::memory_order_release);  // busy before the first byte changes
  slot_ = slot;
  slot->timeNs = nowNs();
  slot->threadId = threadId();
  slot->handle = handle.number_.load(std::memory_order_relaxed);
  at_ = reinterpret_cast<char*>(slot + 1);
  end_ = at_ + slotCapacity - 1;  // a byte is kept for Tag::more
  maxStringLength_ = file->maxStringLength;
}

Recorder::~Recorder() {
  if (!slot_) return;
  slot_->size = static_cast<uint16_t>(at_ - reinterpret_cast<char*>(slot_ + 1));
  slot_->state.store(2 * (ticket_ + 1), std::memory_order_release);
}

void Recorder::cText(const char* value) { text(value ? value : "(null)"); }

void Recorder::text(std::string_view value) {
  putLong(Tag::text, Tag::textCut, value.data(), value.size());
}

void Recorder::bytes(const Buffer& value) {
  putLong(Tag::buffer, Tag::bufferCut, value.bytes, value.bytes ? value.size : 0);
}

void Recorder::put(Tag tag, const void* value, size_t size) {
  if (!slot_ || closed_) return;
  if (size + 1 > static_cast<size_t>(end_ - at_)) return close();
  *at_ = static_cast<char>(tag);
  if (size > 0) std::memcpy(at_ + 1, value, size);
  at_ += 1 + size;
}

void Recorder::close() {
  *at_++ = static_cast<char>(Tag::more);
  closed_ = true;
}

void Recorder::putLong(Tag whole, Tag cut, const void* value, size_t size) {
  if (!slot_ || closed_) return;
  constexpr size_t head = 1 + sizeof(uint16_t);
  const size_t room = static_cast<size_t>(end_ - at_);
  if (room <= head) return close();
  const auto kept = static_cast<uint16_t>(std::min<size_t>({size, maxStringLength_, room - head}));
  *at_ = static_cast<char>(kept == size ? whole : cut);
  std::memcpy(at_ + 1, &kept, sizeof kept);
  if (kept > 0) std::memcpy(at_ + head, value, kept);
  at_ += head + kept;
}

}  // namespace Scrivel
