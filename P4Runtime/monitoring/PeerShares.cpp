#include "P4Runtime/monitoring/PeerShares.h"

namespace P4Runtime {
namespace {

constexpr int mostServed = 2;
constexpr size_t mostWaiting = 8;

}  // namespace

PeerShares::Turn PeerShares::turnOf(const std::string& peer, int socket) {
  const std::lock_guard lock(mutex_);
  Peer& known = peers_[peer];
  if (known.served < mostServed) {
    ++known.served;
    return Turn::now;
  }
  if (known.waiting.size() == mostWaiting) return Turn::never;
  known.waiting.push_back(socket);
  return Turn::later;
}

std::optional<int> PeerShares::nextOf(const std::string& peer) {
  const std::lock_guard lock(mutex_);
  const auto known = peers_.find(peer);
  if (known->second.waiting.empty()) {
    if (--known->second.served == 0) peers_.erase(known);
    return std::nullopt;
  }
  const int next = known->second.waiting.front();
  known->second.waiting.pop_front();
  return next;
}

}  // namespace P4Runtime
