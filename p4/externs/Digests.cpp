#include "p4/externs/Digests.h"

namespace P4 {

void DigestBuffer::add(std::string sample, uint64_t now, std::vector<DigestList>& ready) {
  if (!config_.enabled) return;
  if (pending_.size() >= maxUnacknowledged) {  // nobody acknowledges: forget
    pending_.clear();
    unacknowledged_.clear();
  }
  if (config_.suppress && !pending_.insert(sample).second) return;
  if (waiting_.empty()) firstAt_ = now;
  waiting_.push_back(std::move(sample));
  if (waiting_.size() >= config_.maxSamples || config_.maxWait == 0) handOver(ready);
}

void DigestBuffer::timeIs(uint64_t now, std::vector<DigestList>& ready) {
  if (!waiting_.empty() && now >= firstAt_ + config_.maxWait) handOver(ready);
}

void DigestBuffer::handOver(std::vector<DigestList>& ready) {
  if (waiting_.empty()) return;
  const uint64_t id = nextList_++;
  if (config_.suppress) unacknowledged_[id] = waiting_;
  ready.push_back({learnList_, id, std::move(waiting_)});
  waiting_.clear();
}

void DigestBuffer::acknowledge(uint64_t listId) {
  const auto found = unacknowledged_.find(listId);
  if (found == unacknowledged_.end()) return;
  for (const std::string& sample : found->second) pending_.erase(sample);
  unacknowledged_.erase(found);
}

}  // namespace P4
