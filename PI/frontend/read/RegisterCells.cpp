#include "PI/frontend/read/RegisterCells.h"

#include <algorithm>

#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {
namespace {

constexpr size_t kBytesAtOnce = 16384;  // an answer may have twice as many

}  // namespace

std::optional<std::string_view> RegisterCells::valueOf(uint64_t cell) {
  if (cell - first_ >= count_ && isTold_) fetch(cell);
  if (!isTold_) return std::nullopt;
  const size_t width = fetched_.size() / count_;
  return std::string_view(fetched_).substr((cell - first_) * width, width);
}

void RegisterCells::fetch(uint64_t first) {
  first_ = first;
  count_ = std::clamp<uint64_t>(end_ - first, 1, mostAtOnce_);
  const auto keep = [](void* bytes, const char* data, size_t size) {
    static_cast<std::string*>(bytes)->assign(data, size);
  };
  fetched_.clear();
  isTold_ = _pi_register_cells(session_.deviceId, plan_.id, first, static_cast<uint32_t>(count_),
                               keep, &fetched_) != 0 &&
            !fetched_.empty() && fetched_.size() % count_ == 0;
  if (isTold_) mostAtOnce_ = std::max<uint64_t>(kBytesAtOnce / (fetched_.size() / count_), 1);
}

}  // namespace pi::fe::proto
