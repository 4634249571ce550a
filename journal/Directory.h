// The files of a journal: "journal-000001.kj" and on, in one directory. Each begins with eight
// bytes that tell what it is; records follow.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Journal {

constexpr std::string_view fileMark = "KORVELJ1";

struct File {
  uint64_t number = 0;
  std::string path;
};

std::string filePath(const std::string& directory, uint64_t number);
// Ascending by number. Throws std::runtime_error that names a directory which cannot be read.
std::vector<File> filesIn(const std::string& directory);
// The files that a user names: those in the directory, or the one file.
std::vector<File> filesAt(const std::string& path);
// Whether a process writes the journal in the directory.
bool isBeingWritten(const std::string& directory);

}  // namespace Journal
