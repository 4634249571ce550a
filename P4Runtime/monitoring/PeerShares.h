// How many connections of one peer are served at a time, so that others get in beside them.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace P4Runtime {

// Any thread.
class PeerShares {
 public:
  enum class Turn { now, later, never };

  // `now`: the caller serves the connection, and calls nextOf() after it. `later`: nextOf() returns
  // it. `never`: too many wait; the caller closes it.
  Turn turnOf(const std::string& peer, int socket);
  // Takes the peer's first waiting connection, which is served next. Nothing when none waits.
  std::optional<int> nextOf(const std::string& peer);

 private:
  struct Peer {
    int served = 0;
    std::deque<int> waiting;  // not empty only while some are served
  };

  std::mutex mutex_;
  std::map<std::string, Peer> peers_;  // that are being served
};

}  // namespace P4Runtime
