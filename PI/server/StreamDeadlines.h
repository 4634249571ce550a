// Deadlines of streams: to name a role after opening, and to go after being told to end.
#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

namespace pi::server {

// Not thread-safe; the caller brings the time.
template <typename Stream>
class StreamDeadlines {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Streams = std::vector<Stream*>;

  // The stream is to arbitrate by then.
  void openedIs(Stream& stream, Time arbitrateBy) { toArbitrate_[&stream] = arbitrateBy; }
  void arbitratedIs(Stream& stream) { toArbitrate_.erase(&stream); }
  // The stream has been told to end, and has so long to do it.
  void endingIs(Stream& stream, Time cancelAt) {
    toArbitrate_.erase(&stream);
    toCancel_[&stream] = cancelAt;
  }
  void streamDel(Stream& stream) {
    toArbitrate_.erase(&stream);
    toCancel_.erase(&stream);
  }

  size_t toArbitrate() const { return toArbitrate_.size(); }
  // The stream with the least time left to arbitrate; null: no stream has yet to arbitrate.
  Stream* first() const {
    const auto* const found = earliest(toArbitrate_);
    return found ? found->first : nullptr;
  }
  // The time of the next look; empty: not before something changes.
  std::optional<Time> next() const {
    const auto* const one = earliest(toArbitrate_);
    const auto* const other = earliest(toCancel_);
    if (!one && !other) return std::nullopt;
    if (!one || !other) return (one ? one : other)->second;
    return std::min(one->second, other->second);
  }
  // Removes and returns the streams whose time is up.
  Streams takeUnarbitrated(Time now) { return taken(&toArbitrate_, now); }
  Streams takeLingering(Time now) { return taken(&toCancel_, now); }

 private:
  using Deadlines = std::map<Stream*, Time>;

  static const typename Deadlines::value_type* earliest(const Deadlines& deadlines) {
    const auto found =
        std::min_element(deadlines.begin(), deadlines.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    return found == deadlines.end() ? nullptr : &*found;
  }
  static Streams taken(Deadlines* deadlines, Time now) {
    Streams streams;
    for (const auto& [stream, deadline] : *deadlines) {
      if (deadline <= now) streams.push_back(stream);
    }
    for (Stream* stream : streams) deadlines->erase(stream);
    return streams;
  }

  Deadlines toArbitrate_;
  Deadlines toCancel_;
};

}  // namespace pi::server
