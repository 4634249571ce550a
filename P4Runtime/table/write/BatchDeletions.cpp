#include "P4Runtime/table/write/BatchDeletions.h"

namespace P4Runtime {
namespace {

void appendName(const MatchKey& key, const std::string& rowKey, std::string* name) {
  name->append(reinterpret_cast<const char*>(&key.tableId), sizeof key.tableId);
  name->append(reinterpret_cast<const char*>(&key.priority), sizeof key.priority);
  name->append(rowKey);
}

}  // namespace

void BatchDeletions::add(uint64_t settled, const MatchKey& key, const std::string& rowKey,
                         const Deleted& deleted) {
  if (!isOfBatch(settled)) clear();
  settled_ = settled;
  appendName(key, rowKey, &names_);
  noted_.push_back({deleted, names_.size()});
}

std::optional<BatchDeletions::Deleted> BatchDeletions::take(uint64_t settled, const MatchKey& key,
                                                            const std::string& rowKey) {
  if (!isOfBatch(settled)) return std::nullopt;
  enterNoted();
  if (entered_.empty()) return std::nullopt;
  std::string name;
  appendName(key, rowKey, &name);
  const auto found = entered_.find(name);
  if (found == entered_.end()) return std::nullopt;
  const Deleted deleted = found->second;
  entered_.erase(found);
  return deleted;
}

// The latest deletion of an entry counts.
void BatchDeletions::enterNoted() {
  size_t begin = 0;
  for (const Noted& noted : noted_) {
    entered_.insert_or_assign(names_.substr(begin, noted.nameEnd - begin), noted.deleted);
    begin = noted.nameEnd;
  }
  noted_.clear();
  names_.clear();
}

void BatchDeletions::clear() {
  names_.clear();
  noted_.clear();
  entered_.clear();
}

}  // namespace P4Runtime
