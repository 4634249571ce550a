#include "platform/vela/Nearest.h"

#include <algorithm>
#include <numeric>

namespace Vela {
namespace {

// Letters to insert, delete or replace.
size_t changes(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (size_t i = 1; i <= from.size(); ++i) {
    size_t before = row[0]++;
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t replaced = before + (from[i - 1] == to[j - 1] ? 0 : 1);
      before = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& known) {
  constexpr size_t longest = 256;  // the work grows with the square
  if (word.empty() || word.size() > longest) return {};
  size_t fewest = std::max<size_t>(2, word.size() / 3) + 1;
  std::string best;
  for (const std::string& one : known) {
    const size_t needed = one.starts_with(word) ? 1 : changes(word, one);
    if (needed >= fewest) continue;
    fewest = needed;
    best = one;
  }
  return best;
}

}  // namespace Vela
