// Gathers digests into lists.
#include "PI/frontend/notices/DigestLists.h"

#include <algorithm>
#include <utility>

namespace pi::fe::proto {

namespace {

size_t listSize(const DigestConfig& config) {
  if (config.max_timeout_ns() == 0) return 1;
  if (config.max_list_size() == 0) return DigestLists::mostOfAList;
  return std::min<size_t>(static_cast<size_t>(config.max_list_size()), DigestLists::mostOfAList);
}

// A time-out of centuries must not pass the end of time.
std::chrono::nanoseconds bounded(int64_t ns) {
  constexpr int64_t kLongest = 365LL * 24 * 3600 * 1'000'000'000;
  return std::chrono::nanoseconds(std::min(ns, kLongest));
}

}  // namespace

DigestLists::~DigestLists() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  changed_.notify_all();
  if (timer_.joinable()) timer_.join();
}

void DigestLists::messageIs(uint32_t digestId, const DigestConfig& config,
                            std::string_view message) {
  ReadyList ready;
  {
    const std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    Digest& digest = digests_[digestId];
    digest.ackTimeout = bounded(config.ack_timeout_ns());
    doForgetOld(digest, now);
    if (digest.known.size() >= mostUnanswered) return;
    if (!digest.known.emplace(message).second) return;
    if (digest.waiting.empty()) digest.dueAt = now + bounded(config.max_timeout_ns());
    digest.waiting.emplace_back(message);
    if (digest.waiting.size() >= listSize(config)) {
      ready = take(digestId, digest, now);
    } else if (digest.waiting.size() == 1) {
      if (!timer_.joinable()) timer_ = std::thread([this] { runTimer(); });
      changed_.notify_all();
    }
  }
  if (!ready.messages.empty()) send_(ready.digestId, ready.listId, ready.messages);
}

// The waiting messages become a list.
DigestLists::ReadyList DigestLists::take(uint32_t digestId, Digest& digest, Clock::time_point now) {
  ReadyList ready{digestId, ++lastList_, std::exchange(digest.waiting, {})};
  SentList list{ready.messages, now + digest.ackTimeout};
  if (digest.ackTimeout.count() == 0) {
    doForgetList(digest, list);
  } else {
    digest.sent.emplace(ready.listId, std::move(list));
  }
  return ready;
}

void DigestLists::doForgetList(Digest& digest, const SentList& list) {
  for (const std::string& message : list.messages) digest.known.erase(message);
}

void DigestLists::doForgetOld(Digest& digest, Clock::time_point now) {
  for (auto list = digest.sent.begin(); list != digest.sent.end();) {
    const auto at = list++;
    if (at->second.forgottenAt > now) continue;
    doForgetList(digest, at->second);
    digest.sent.erase(at);
  }
}

void DigestLists::handleAck(uint32_t digestId, uint64_t listId) {
  const std::lock_guard lock(mutex_);
  const auto digest = digests_.find(digestId);
  if (digest == digests_.end()) return;
  const auto list = digest->second.sent.find(listId);
  if (list == digest->second.sent.end()) return;
  doForgetList(digest->second, list->second);
  digest->second.sent.erase(list);
}

void DigestLists::forget(uint32_t digestId) {
  const std::lock_guard lock(mutex_);
  digests_.erase(digestId);
}

void DigestLists::runTimer() {
  std::unique_lock lock(mutex_);
  while (!ends_) {
    Clock::time_point next = Clock::time_point::max();
    std::vector<ReadyList> due = takeDue(Clock::now(), &next);
    if (!due.empty()) {
      lock.unlock();
      for (const ReadyList& list : due) send_(list.digestId, list.listId, list.messages);
      lock.lock();
    } else if (next == Clock::time_point::max()) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, next);
    }
  }
}

std::vector<DigestLists::ReadyList> DigestLists::takeDue(Clock::time_point now,
                                                         Clock::time_point* next) {
  std::vector<ReadyList> due;
  for (auto& [id, digest] : digests_) {
    if (digest.waiting.empty()) continue;
    if (digest.dueAt <= now) {
      due.push_back(take(id, digest, now));
    } else {
      *next = std::min(*next, digest.dueAt);
    }
  }
  return due;
}

}  // namespace pi::fe::proto
