// Writes the records of a journal into files of bounded size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "journal/Directory.h"
#include "journal/Reader.h"
#include "platform/vela/Descriptors.h"

namespace Journal {

// Used by one thread at a time. One process writes a directory.
class FileWriter {
 public:
  // Makes the directory if need be, and goes on in its newest file. `mostBytes`: of all files; the
  // oldest ones make room. Throws std::system_error that names directory or file; another process
  // that writes there is EBUSY.
  FileWriter(std::string directory, uint64_t mostBytes);

  // The highest sequence in the files; 0 without one.
  uint64_t lastSequence() const { return lastSequence_; }
  // What was found at the end of the newest file, in plain words; empty when it is sound.
  const std::string& found() const { return found_; }

  // Whole sealed records, one after another. Throws std::system_error when not all of the bytes
  // could be written; the files hold the records of the first `written` bytes then.
  void write(std::string_view records, size_t* written);
  uint64_t bytes() const { return bytes_; }  // of all files

 private:
  struct Kept {
    File file;
    uint64_t bytes = 0;
  };

  void lock();
  void doFindFiles();
  void goOn(const File& newest);
  std::optional<FileReader> readToEnd(const File& file);
  void open(const File& file);
  void openNext();
  void writeAll(std::string_view records);
  void makeRoom(uint64_t bytes);

  const std::string directory_;
  const uint64_t mostBytes_;
  const uint64_t fileBytes_;  // a file that is larger is followed by another one
  Vela::UniqueFd lock_;
  Vela::UniqueFd fd_;
  std::deque<Kept> files_;  // the last one is open
  uint64_t bytes_ = 0;
  uint64_t lastSequence_ = 0;
  std::string found_;
};

}  // namespace Journal
