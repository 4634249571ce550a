#include "journal/Directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "platform/vela/Descriptors.h"

namespace Journal {
namespace {

constexpr std::string_view prefix = "journal-";
constexpr std::string_view suffix = ".kj";

std::optional<uint64_t> numberOf(std::string_view name) {
  if (!name.starts_with(prefix) || !name.ends_with(suffix)) return std::nullopt;
  if (name.size() <= prefix.size() + suffix.size()) return std::nullopt;
  name.remove_prefix(prefix.size());
  name.remove_suffix(suffix.size());
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool isAll = error == std::errc() && end == name.data() + name.size();
  return isAll ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string filePath(const std::string& directory, uint64_t number) {
  return fmt::format("{}/{}{:06}{}", directory, prefix, number, suffix);
}

std::vector<File> filesIn(const std::string& directory) {
  std::error_code error;
  std::vector<File> files;
  for (auto at = std::filesystem::directory_iterator(directory, error);
       !error && at != std::filesystem::directory_iterator(); at.increment(error)) {
    if (const auto number = numberOf(at->path().filename().string())) {
      files.push_back({*number, at->path().string()});
    }
  }
  if (error) {
    throw std::runtime_error(
        fmt::format("cannot read the journal's directory {}: {}", directory, error.message()));
  }
  std::ranges::sort(files, {}, &File::number);
  return files;
}

std::vector<File> filesAt(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_regular_file(path, error)) return {{0, path}};
  auto files = filesIn(path);
  if (files.empty()) {
    throw std::runtime_error(
        fmt::format("there is no journal in {}: it has no {}NUMBER{}", path, prefix, suffix));
  }
  return files;
}

bool isBeingWritten(const std::string& directory) {
  const Vela::UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && flock(fd.get(), LOCK_SH | LOCK_NB) != 0;
}

}  // namespace Journal
