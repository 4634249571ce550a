// See Plan.h.
#include "bench/p4runtime/Plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace Bench {
namespace {

constexpr uint64_t veryLarge = 1000000;
constexpr size_t largeBatch = 1000;

size_t numberOf(std::string_view text, size_t most) {
  size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  if (!isNumber || number == 0 || number > most) {
    throw std::invalid_argument(fmt::format("'{}' is no number from 1 to {}", text, most));
  }
  return number;
}

}  // namespace

Load loadOf(const std::string& text) {
  const size_t x = text.find('x');
  if (x == std::string::npos) {
    throw std::invalid_argument("'" + text + "' is no load; write BATCHxCALLERS, such as 100x4");
  }
  const std::string_view whole = text;
  return {numberOf(whole.substr(0, x), 10000), numberOf(whole.substr(x + 1), 64)};
}

std::string textOf(const Load& load) { return fmt::format("{} x {}", load.batch, load.callers); }

bool Plan::wants(const std::string& operation) const {
  return std::find(operations.begin(), operations.end(), operation) != operations.end();
}

// A 99th percentile wants a hundred round trips at the least; small batches can afford more.
size_t Plan::requests(size_t batch) const {
  const double updates = batch == 1 ? 3000 : batch <= 10 ? 10000 : batch <= 100 ? 30000 : 100000;
  return std::max<size_t>(20, static_cast<size_t>(updates * effort / static_cast<double>(batch)));
}

std::vector<size_t> Plan::batches() const {
  std::vector<size_t> batches;
  for (const Load& load : loads) {
    if (load.callers == 1) batches.push_back(load.batch);
  }
  return batches;
}

bool Plan::writes(const Load& load, uint64_t table) const {
  return table < veryLarge || load.batch >= largeBatch;
}

uint64_t Plan::updates(const Load& load, uint64_t table) const {
  if (load.batch >= 100) return table;
  return std::min<uint64_t>(table, requests(load.batch) * load.batch);
}

}  // namespace Bench
