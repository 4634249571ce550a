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
constexpr const char* programSuffix = ".program";
constexpr const char* namesSuffix = ".names";

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

void PushedFiles::write(const PushMark& mark, const Contents& contents) const {
  std::filesystem::create_directories(directory_);
  Pipeline::fileContentsIs(pathOf(mark, pipelineSuffix), contents.pipeline);
  Pipeline::fileContentsIs(pathOf(mark, givenSuffix), contents.given);
  Pipeline::fileContentsIs(pathOf(mark, namesSuffix), contents.names);
  const std::string program = contents.program.empty() ? programInForce() : "";
  Pipeline::fileContentsIs(pathOf(mark, programSuffix),
                           contents.program.empty() ? program : contents.program);
}

// Empty when there is none.
std::string PushedFiles::programInForce() const {
  const auto current = mark();
  if (!current) return "";
  const std::string path = pathOf(*current, programSuffix);
  std::error_code none;
  return std::filesystem::exists(path, none) ? Pipeline::fileContents(path) : "";
}

void PushedFiles::markIs(const PushMark& mark) const {
  Pipeline::fileContentsIs(markPath(), fmt::format("{} {}\n", mark.number, mark.entries));
}

void PushedFiles::markDel() const { std::filesystem::remove(markPath()); }

void PushedFiles::removeOthers() const {
  const auto current = mark();
  std::error_code none;
  for (const auto& file : std::filesystem::directory_iterator(directory_, none)) {
    const std::filesystem::path& path = file.path();
    const bool isInForce = current && path.stem() == std::to_string(current->number);
    if (path.string() == markPath() || isInForce) continue;
    std::filesystem::remove(path, none);
  }
}

}  // namespace P4Runtime
