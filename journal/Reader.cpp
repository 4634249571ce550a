#include "journal/Reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace Journal {
namespace {

constexpr size_t chunkBytes = 4 << 20;

std::runtime_error unreadable(const std::string& path) {
  return std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
}

}  // namespace

FileReader::FileReader(const std::string& path)
    : path_(path), fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (!fd_) {
    const int error = errno;
    throw std::system_error(error, std::generic_category(), "cannot read " + path);
  }
  const bool isLongEnough = fill(fileMark.size());
  const std::string_view mark(buffer_.data(), std::min(end_, fileMark.size()));
  if (!fileMark.starts_with(mark)) {
    throw std::runtime_error(
        fmt::format("{} is no file of a journal that this program can read", path_));
  }
  if (!isLongEnough) return;  // the agent was killed as it began the file
  begin_ = place_ = fileMark.size();
}

// Whether so many bytes that are not read yet are in the buffer.
bool FileReader::fill(size_t wanted) {
  while (end_ - begin_ < wanted) {
    if (begin_ > 0) {
      std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (buffer_.size() < std::max(wanted, chunkBytes)) buffer_.resize(std::max(wanted, chunkBytes));
    const ssize_t got = read(fd_.get(), buffer_.data() + end_, buffer_.size() - end_);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw unreadable(path_);
    if (got == 0) return false;
    end_ += static_cast<size_t>(got);
  }
  return true;
}

std::optional<Record> FileReader::next() {
  isTorn_ = true;
  if (!fill(headBytes)) return std::nullopt;
  uint32_t size = 0;
  std::memcpy(&size, buffer_.data() + begin_, sizeof size);
  isTorn_ = size <= mostRecordBytes;
  if (!isTorn_ || !fill(sumBytes + size)) return std::nullopt;
  const auto record = recordAt({buffer_.data() + begin_, end_ - begin_});
  if (!record) {
    isTorn_ = !fill(sumBytes + size + 1);  // the last one: others follow a damaged one
    return std::nullopt;
  }
  begin_ += sumBytes + size;
  place_ += sumBytes + size;
  return record;
}

bool Reader::openNext() {
  while (opened_ < files_.size()) {
    const File& file = files_[opened_++];
    try {
      file_.emplace(file.path);
      return true;
    } catch (const std::system_error& e) {
      if (e.code() != std::errc::no_such_file_or_directory || files_.size() == 1) throw;
      notes_.push_back(fmt::format("{} has made room for newer files meanwhile", file.path));
      hasLostFiles_ = true;
    } catch (const std::runtime_error& e) {
      if (files_.size() == 1) throw;
      notes_.push_back(fmt::format("{}; it is left out", e.what()));
    }
  }
  return false;
}

void Reader::noteRest() {
  if (!file_->hasRest()) return;
  const std::string& path = files_[opened_ - 1].path;
  if (file_->isTorn() && opened_ == files_.size()) {
    notes_.push_back(fmt::format(
        "{}: the bytes from {} on are no whole record, because the agent is writing it or ended "
        "before it had written it; they are left out",
        path, file_->place()));
  } else {
    notes_.push_back(fmt::format("{}: damaged at byte {}; the rest of this file is left out", path,
                                 file_->place()));
  }
}

std::optional<Record> Reader::next() {
  while (file_ || openNext()) {
    if (auto record = file_->next()) return record;
    noteRest();
    file_.reset();
  }
  return std::nullopt;
}

}  // namespace Journal
