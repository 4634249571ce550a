#include "P4Runtime/pipeline/PushedFiles.h"

#include <fmt/format.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "pipeline/Files.h"

namespace P4Runtime {
namespace {

constexpr const char* pipelineSuffix = ".pipeline";
constexpr const char* givenSuffix = ".given";

}  // namespace

std::optional<PushMark> PushedFiles::mark() const {
  std::error_code none;
  if (!std::filesystem::exists(markPath(), none)) return std::nullopt;
  std::istringstream text(Pipeline::fileContents(markPath()));
  PushMark mark;
  if (text >> mark.number >> mark.entries) return mark;
  throw std::runtime_error(fmt::format(
      "{} is damaged; 'korvel pipeline reset' goes back to the configured pipeline", markPath()));
}

std::string PushedFiles::pathOf(const PushMark& mark, const char* suffix) const {
  return fmt::format("{}/{}{}", directory_, mark.number, suffix);
}

std::string PushedFiles::pipelinePath(const PushMark& mark) const {
  return pathOf(mark, pipelineSuffix);
}

std::string PushedFiles::given(const PushMark& mark) const {
  return Pipeline::fileContents(pathOf(mark, givenSuffix));
}

void PushedFiles::write(const PushMark& mark, std::string_view pipeline,
                        std::string_view given) const {
  std::filesystem::create_directories(directory_);
  Pipeline::fileContentsIs(pathOf(mark, pipelineSuffix), pipeline);
  Pipeline::fileContentsIs(pathOf(mark, givenSuffix), given);
}

void PushedFiles::markIs(const PushMark& mark) const {
  Pipeline::fileContentsIs(markPath(), fmt::format("{} {}\n", mark.number, mark.entries));
}

void PushedFiles::markDel() const { std::filesystem::remove(markPath()); }

void PushedFiles::removeOthers() const {
  const auto current = mark();
  std::error_code none;
  for (const auto& file : std::filesystem::directory_iterator(directory_, none)) {
    const std::string path = file.path().string();
    if (path == markPath()) continue;
    if (current && (path == pipelinePath(*current) || path == pathOf(*current, givenSuffix))) {
      continue;
    }
    std::filesystem::remove(path, none);
  }
}

}  // namespace P4Runtime
