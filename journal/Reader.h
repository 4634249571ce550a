// Reads the records of a journal in their order, also while an agent writes it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "journal/Directory.h"
#include "journal/Record.h"
#include "platform/vela/Descriptors.h"

namespace Journal {

// One file. Holds a few MiB of it in memory, or its largest record.
class FileReader {
 public:
  // Throws std::runtime_error, naming it, for a file that cannot be read or is none of a journal.
  explicit FileReader(const std::string& path);

  // Empty at the end, and where the rest is no whole record: see left().
  // The record lasts until the next call. Throws std::runtime_error when the file cannot be read.
  std::optional<Record> next();
  uint64_t place() const { return place_; }  // of the first byte behind the records read so far
  // Once there is no record: whether bytes are left, and whether they are the begin of a record
  // that was not written to its end.
  bool hasRest() const { return end_ > begin_; }
  bool isTorn() const { return isTorn_; }

 private:
  bool fill(size_t wanted);

  const std::string path_;
  Vela::UniqueFd fd_;
  std::string buffer_;
  size_t begin_ = 0;  // of the bytes that are not read yet
  size_t end_ = 0;
  uint64_t place_ = 0;
  bool isTorn_ = false;
};

// A file after the other.
class Reader {
 public:
  explicit Reader(std::vector<File> files) : files_(std::move(files)) {}

  // As FileReader::next(), of all files. A file that has gone is one that made room for newer ones.
  std::optional<Record> next();
  // What was left out, a line each: damage, files that have gone.
  const std::vector<std::string>& notes() const { return notes_; }
  bool hasLostFiles() const { return hasLostFiles_; }  // some made room while it read

 private:
  bool openNext();
  void noteRest();

  std::vector<File> files_;
  size_t opened_ = 0;
  std::optional<FileReader> file_;
  std::vector<std::string> notes_;
  bool hasLostFiles_ = false;
};

}  // namespace Journal
