#include "P4Runtime/table/restore/RestoreCounts.h"

#include <fmt/format.h>

namespace P4Runtime {
namespace {

constexpr size_t mostSaid = 20;  // of the unusable objects

std::string summary(const RestoreCounts& counts) {
  std::string text = fmt::format("korvel: restored {} entries", counts.entries);
  if (counts.members + counts.groups > 0) {
    text += fmt::format(", {} members and {} groups", counts.members, counts.groups);
  }
  if (!counts.unusable.empty()) {
    text += fmt::format("; removed {} that the pipeline has no place for", counts.unusable.size());
  }
  if (counts.rows > 0)
    text += fmt::format("; removed {} rows that no entry stood for", counts.rows);
  return text;
}

}  // namespace

std::string toText(const RestoreCounts& counts) {
  std::string text = summary(counts);
  for (size_t i = 0; i < counts.unusable.size() && i < mostSaid; ++i) {
    text += "\nkorvel: not restored: " + counts.unusable[i];
  }
  if (counts.unusable.size() > mostSaid) {
    text += fmt::format("\nkorvel: not restored: {} more; see p4runtime/status/failures",
                        counts.unusable.size() - mostSaid);
  }
  return text + '\n';
}

}  // namespace P4Runtime
