#include "journal/FileWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Journal {
namespace {

constexpr uint64_t filesOfJournal = 8;
constexpr uint64_t leastFileBytes = 64 << 10;
// The newest file is read when a process begins to write, which must not take long.
constexpr uint64_t mostFileBytes = 8 << 20;

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

FileWriter::FileWriter(std::string directory, uint64_t mostBytes)
    : directory_(std::move(directory)),
      mostBytes_(mostBytes),
      fileBytes_(std::clamp(mostBytes / filesOfJournal, leastFileBytes, mostFileBytes)) {
  lock();
  doFindFiles();
}

void FileWriter::lock() {
  if (mkdir(directory_.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    fail(errno, "cannot make the journal's directory " + directory_);
  }
  lock_ = Vela::UniqueFd(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock_) fail(errno, "cannot open the journal's directory " + directory_);
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    fail(errno == EWOULDBLOCK ? EBUSY : errno, "another process writes a journal in " + directory_);
  }
}

void FileWriter::doFindFiles() {
  for (File& file : filesIn(directory_)) {
    std::error_code error;
    const uint64_t size = std::filesystem::file_size(file.path, error);
    files_.push_back({std::move(file), error ? 0 : size});
    bytes_ += files_.back().bytes;
  }
  if (files_.empty()) return openNext();
  goOn(files_.back().file);
  // A start may have been killed before it wrote a record.
  for (auto at = files_.rbegin(); lastSequence_ == 0 && ++at != files_.rend();) {
    readToEnd(at->file);
  }
}

// Empty for a file with a wrong begin, such as a power failure may leave.
std::optional<FileReader> FileWriter::readToEnd(const File& file) {
  try {
    std::optional<FileReader> reader(file.path);
    while (const auto record = reader->next()) lastSequence_ = record->sequence;
    return reader;
  } catch (const std::system_error&) {
    throw;
  } catch (const std::runtime_error& e) {
    found_ = fmt::format("{}; it stays as it is", e.what());
    return std::nullopt;
  }
}

// A torn record is cut off: it has no others behind it. A file with damage stays as it is, for
// those who want to look at it.
void FileWriter::goOn(const File& newest) {
  const auto file = readToEnd(newest);
  if (!file) return openNext();
  if (file->hasRest() && !file->isTorn()) {
    found_ = fmt::format("{} is damaged at byte {}; the rest of it cannot be read", newest.path,
                         file->place());
    return openNext();
  }
  open(newest);
  const uint64_t whole = file->place();
  if (files_.back().bytes == whole) return;
  if (whole != 0) {
    found_ = fmt::format(
        "the last {} bytes of {} were no whole record, because the agent ended while it wrote it; "
        "they are cut off",
        files_.back().bytes - whole, newest.path);
  }
  if (ftruncate(fd_.get(), static_cast<off_t>(whole)) != 0) fail(errno, newest.path);
  bytes_ -= files_.back().bytes - whole;
  files_.back().bytes = whole;
}

void FileWriter::open(const File& file) {
  fd_ = Vela::UniqueFd(::open(file.path.c_str(),
                              O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                              S_IRUSR | S_IWUSR));
  if (!fd_) fail(errno, file.path);
}

void FileWriter::openNext() {
  const uint64_t number = files_.empty() ? 1 : files_.back().file.number + 1;
  const File file{number, filePath(directory_, number)};
  open(file);
  files_.push_back({file, 0});
}

// Written as a whole, or not at all.
void FileWriter::writeAll(std::string_view records) {
  Kept& kept = files_.back();
  const char* at = records.data();
  size_t left = records.size();
  while (left > 0) {
    const ssize_t wrote = ::write(fd_.get(), at, left);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      const int error = wrote < 0 ? errno : ENOSPC;
      // Should that fail, too, the next start finds a torn record.
      if (ftruncate(fd_.get(), static_cast<off_t>(kept.bytes)) != 0) fd_ = Vela::UniqueFd();
      fail(error, kept.file.path);
    }
    at += wrote;
    left -= static_cast<size_t>(wrote);
  }
  kept.bytes += records.size();
  bytes_ += records.size();
}

void FileWriter::makeRoom(uint64_t bytes) {
  while (files_.size() > 1 && bytes_ + bytes > mostBytes_) {
    unlink(files_.front().file.path.c_str());
    bytes_ -= files_.front().bytes;
    files_.pop_front();
  }
}

// As many records at once as the file takes. A file without its mark is one that had no room for
// it.
void FileWriter::write(std::string_view records, size_t* written) {
  *written = 0;
  while (!records.empty()) {
    if (!fd_ || files_.back().bytes >= fileBytes_) openNext();
    if (files_.back().bytes == 0) {
      makeRoom(fileMark.size());
      writeAll(fileMark);
    }
    size_t last = 0;
    size_t size = recordBytes(records);
    while (const size_t next = recordBytes(records.substr(size))) {
      if (files_.back().bytes + size + next > fileBytes_) break;
      last = size;
      size += next;
    }
    makeRoom(size);
    writeAll(records.substr(0, size));
    lastSequence_ = sequenceOf(records.substr(last));
    *written += size;
    records.remove_prefix(size);
  }
}

}  // namespace Journal
