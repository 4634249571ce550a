#include "platform/scrivel/TraceReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "platform/scrivel/FileLayout.h"
#include "platform/scrivel/Levels.h"
#include "platform/scrivel/Trace.h"

namespace Scrivel {
namespace {

namespace fs = std::filesystem;

// Takes values off the front of stored bytes; returns false when they run out.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
  bool empty() const { return bytes_.empty(); }
  template <typename T>
  bool take(T* value) {
    if (bytes_.size() < sizeof(T)) return false;
    std::memcpy(value, bytes_.data(), sizeof(T));
    bytes_.remove_prefix(sizeof(T));
    return true;
  }
  bool take(size_t size, std::string_view* value) {
    if (bytes_.size() < size) return false;
    *value = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return true;
  }

 private:
  std::string_view bytes_;
};

// A record is one line: bytes that would break it, or the terminal, are shown as \xNN.
void appendPrintable(std::string_view text, std::string* out) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      *out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      *out += c;
    }
  }
}

void appendHex(std::string_view bytes, std::string* out) {
  for (const char c : bytes) *out += fmt::format("{:02x}", static_cast<unsigned char>(c));
}

template <typename T>
bool appendNumber(Cursor& cursor, const char* format, std::string* out) {
  T value;
  if (!cursor.take(&value)) return false;
  *out += fmt::format(fmt::runtime(format), value);
  return true;
}

bool appendLong(Cursor& cursor, Tag tag, std::string* out) {
  uint16_t size = 0;
  std::string_view bytes;
  if (!cursor.take(&size) || !cursor.take(size, &bytes)) return false;
  const bool isText = tag == Tag::text || tag == Tag::textCut;
  isText ? appendPrintable(bytes, out) : appendHex(bytes, out);
  if (tag == Tag::textCut || tag == Tag::bufferCut) *out += "...";
  return true;
}

// False: the bytes are damaged from here on.
bool appendArgument(Cursor& cursor, std::string* out) {
  Tag tag{};
  if (!cursor.take(&tag)) return false;
  switch (tag) {
    case Tag::text:
    case Tag::textCut:
    case Tag::buffer:
    case Tag::bufferCut:
      return appendLong(cursor, tag, out);
    case Tag::signed64:
      return appendNumber<int64_t>(cursor, "{}", out);
    case Tag::unsigned64:
      return appendNumber<uint64_t>(cursor, "{}", out);
    case Tag::number:
      return appendNumber<double>(cursor, "{}", out);
    case Tag::hex:
    case Tag::pointer:
      return appendNumber<uint64_t>(cursor, "{:#x}", out);
    case Tag::boolean: {
      uint8_t value = 0;
      if (!cursor.take(&value)) return false;
      *out += value ? "true" : "false";
      return true;
    }
    case Tag::more:
      *out += " ...";
      return true;
  }
  return false;
}

bool preadAll(int fd, void* to, size_t size, size_t offset) {
  char* at = static_cast<char*>(to);
  while (size > 0) {
    const ssize_t got = pread(fd, at, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    offset += got;
    size -= got;
  }
  return true;
}

std::string nameOf(const HandleEntry& entry) {
  std::string name;
  appendPrintable({entry.name, strnlen(entry.name, sizeof entry.name)}, &name);
  return name;
}

struct Header {
  uint32_t rings = 0;
  uint32_t ringSize = 0;
  int64_t pid = 0;
  uint64_t startNs = 0;
};

// Plain copies of the file's words, read through the file: the mapping's atomics are the writer's.
std::optional<Header> readHeader(int fd) {
  std::vector<char> bytes(sizeof(FileHeader));
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (!preadAll(fd, bytes.data(), bytes.size(), 0)) return std::nullopt;
  const auto* raw = reinterpret_cast<const FileHeader*>(bytes.data());
  if (std::memcmp(raw->magic, fileMagic, sizeof fileMagic) != 0) return std::nullopt;
  Header header{raw->rings, raw->ringSize, raw->pid, raw->startNs};
  if (header.rings == 0 || header.rings > maxRings) return std::nullopt;
  if (header.ringSize > maxRingSize || !std::has_single_bit(header.ringSize)) return std::nullopt;
  if (static_cast<size_t>(status.st_size) < fileBytes(header.rings, header.ringSize)) {
    return std::nullopt;
  }
  return header;
}

}  // namespace

std::string argumentsText(std::string_view stored) {
  std::string text;
  Cursor cursor(stored);
  while (!cursor.empty()) {
    if (!appendArgument(cursor, &text)) return text + " (damaged)";
  }
  return text;
}

struct TraceReader::OpenFile {
  std::string path;
  int fd = -1;
  ino_t inode = 0;
  Header header;
  std::vector<std::string> handleNames;
  uint64_t seen[maxRings] = {};       // tickets below are done with
  uint64_t waitedFor[maxRings] = {};  // ticket + 1 of a record that was not complete last time
  bool touched = false;               // still in the directory

  ~OpenFile() {
    if (fd >= 0) close(fd);
  }

  bool alive() const {
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) return true;
    flock(fd, LOCK_UN);
    return false;
  }

  std::vector<TraceFileInfo::Handle> readHandles() {
    std::vector<char> bytes(maxHandles * sizeof(HandleEntry));
    std::vector<TraceFileInfo::Handle> handles;
    uint32_t count = 0;
    if (!preadAll(fd, &count, sizeof count, offsetof(FileHeader, handleCount))) return handles;
    if (!preadAll(fd, bytes.data(), bytes.size(), sizeof(FileHeader))) return handles;
    const auto* entries = reinterpret_cast<const HandleEntry*>(bytes.data());
    for (uint32_t i = 0; i < std::min(count, maxHandles); ++i) {
      handles.push_back({nameOf(entries[i]), entries[i].mask.load(std::memory_order_relaxed)});
    }
    return handles;
  }

  std::string handleName(uint16_t number) {
    if (number == noHandle) return "?";
    if (number >= handleNames.size()) {
      handleNames.clear();
      for (auto& handle : readHandles()) handleNames.push_back(std::move(handle.name));
    }
    return number < handleNames.size() ? handleNames[number] : "?";
  }

  void read(uint32_t ring, std::vector<TraceRecord>* out, uint64_t* lost);
  std::optional<TraceRecord> record(const char* slot, uint32_t ring);
};

std::optional<TraceRecord> TraceReader::OpenFile::record(const char* slot, uint32_t ring) {
  const auto* head = reinterpret_cast<const SlotHeader*>(slot);
  if (head->size > slotCapacity) return std::nullopt;
  TraceRecord record;
  record.timeNs = head->timeNs;
  record.pid = header.pid;
  record.threadId = head->threadId;
  record.level = ring;
  record.handle = handleName(head->handle);
  record.text = argumentsText({slot + sizeof(SlotHeader), head->size});
  return record;
}

// The ring is copied, and then the states are looked at once more: a slot whose state is the same
// before and after was not written meanwhile.
void TraceReader::OpenFile::read(uint32_t ring, std::vector<TraceRecord>* out, uint64_t* lost) {
  const size_t offset = ringOffset(header.ringSize, ring);
  uint64_t next = 0;
  if (!preadAll(fd, &next, sizeof next, offset) || next == seen[ring]) return;
  const size_t size = ringBytes(header.ringSize) - sizeof(RingHeader);
  std::vector<char> before(size), after(size);  // bounded by maxRingSize
  if (!preadAll(fd, before.data(), size, offset + sizeof(RingHeader))) return;
  if (!preadAll(fd, after.data(), size, offset + sizeof(RingHeader))) return;

  if (next < seen[ring]) seen[ring] = 0;  // only a damaged file counts backwards
  const uint64_t oldest = next > header.ringSize ? next - header.ringSize : 0;
  const uint64_t first = std::max(seen[ring], oldest);
  *lost += first - seen[ring];
  for (uint64_t ticket = first; ticket != next; ++ticket) {
    const size_t at = (ticket & (header.ringSize - 1)) * slotSize;
    uint64_t state = 0, stateAfter = 0;
    std::memcpy(&state, before.data() + at, sizeof state);
    std::memcpy(&stateAfter, after.data() + at, sizeof stateAfter);
    const uint64_t complete = 2 * (ticket + 1);
    if (state == complete && state == stateAfter) {
      if (auto one = record(before.data() + at, ring)) out->push_back(std::move(*one));
    } else if (state < complete || state == complete + 1) {
      // Being stored right now, or given up. It gets one more look, at the next call.
      if (waitedFor[ring] != ticket + 1 && alive()) {
        waitedFor[ring] = ticket + 1;
        seen[ring] = ticket;
        return;
      }
      ++*lost;
    } else {
      ++*lost;  // overwritten while we looked
    }
  }
  seen[ring] = next;
}

TraceReader::TraceReader(std::string directory) : directory_(std::move(directory)) {}
TraceReader::~TraceReader() = default;

void TraceReader::findFiles() {
  for (auto& file : files_) file->touched = false;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory_, error)) {
    if (entry.path().extension() != ".scv") continue;
    auto file = std::make_unique<OpenFile>();
    file->path = entry.path().string();
    file->fd = open(file->path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (file->fd < 0 || fstat(file->fd, &status) != 0) continue;
    file->inode = status.st_ino;
    const auto known = std::find_if(files_.begin(), files_.end(),
                                    [&](const auto& other) { return other->inode == file->inode; });
    if (known != files_.end()) {
      (*known)->touched = true;
      (*known)->path = file->path;
      continue;
    }
    const auto header = readHeader(file->fd);
    if (!header) continue;
    file->header = *header;
    file->touched = true;
    files_.push_back(std::move(file));
  }
  std::erase_if(files_, [](const auto& file) { return !file->touched; });
  std::sort(files_.begin(), files_.end(),
            [](const auto& a, const auto& b) { return a->header.startNs < b->header.startNs; });
}

std::vector<TraceFileInfo> TraceReader::files() {
  findFiles();
  std::vector<TraceFileInfo> infos;
  for (const auto& file : files_) {
    infos.push_back(
        {file->path, file->header.pid, file->header.startNs, file->alive(), file->readHandles()});
  }
  return infos;
}

std::vector<TraceRecord> TraceReader::records() {
  findFiles();
  std::vector<TraceRecord> all;
  for (const auto& file : files_) {
    for (uint32_t ring = 0; ring < file->header.rings; ++ring) file->read(ring, &all, &lost_);
  }
  std::stable_sort(all.begin(), all.end(),
                   [](const TraceRecord& a, const TraceRecord& b) { return a.timeNs < b.timeNs; });
  return all;
}

bool TraceFilter::passes(const TraceRecord& record) const {
  if (!handle.empty() && !nameMatches(handle, record.handle)) return false;
  if (maxLevel && record.level > *maxLevel) return false;
  if (pid && record.pid != *pid) return false;
  return text.empty() || record.text.find(text) != std::string::npos;
}

std::string toLine(const TraceRecord& record) {
  const auto seconds = static_cast<time_t>(record.timeNs / 1'000'000'000);
  struct tm local {};
  localtime_r(&seconds, &local);
  char date[64];
  strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  return fmt::format("{}.{:06} {}/{} {} {} {}", date, record.timeNs % 1'000'000'000 / 1000,
                     record.pid, record.threadId, record.handle, record.level, record.text);
}

namespace {

void writeLevels(char* base, std::string_view text, const Levels& levels) {
  auto* header = reinterpret_cast<FileHeader*>(base);
  std::memset(header->levels, 0, sizeof header->levels);
  std::memcpy(header->levels, text.data(), text.size());
  auto* entries = reinterpret_cast<HandleEntry*>(base + sizeof(FileHeader));
  const uint32_t count = std::min(header->handleCount.load(), maxHandles);
  for (uint32_t i = 0; i < count; ++i) {
    if (const auto mask = levels.named(nameOf(entries[i]))) entries[i].mask = *mask;
  }
}

}  // namespace

void setLevels(const std::string& path, std::string_view text) {
  std::string trouble;
  const auto levels = Levels::parse(text, &trouble);
  if (!levels) throw TraceError(trouble);
  if (text.size() >= sizeof(FileHeader::levels)) {
    throw TraceError(
        fmt::format("the trace levels are longer than {} characters; set fewer at a time",
                    sizeof(FileHeader::levels) - 1));
  }
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) throw TraceError(fmt::format("cannot open {}: {}", path, strerror(errno)));
  const size_t size = sizeof(FileHeader) + maxHandles * sizeof(HandleEntry);
  void* base = MAP_FAILED;
  if (readHeader(fd)) base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED) throw TraceError(path + " is no trace file");
  writeLevels(static_cast<char*>(base), text, *levels);
  munmap(base, size);
}

}  // namespace Scrivel
