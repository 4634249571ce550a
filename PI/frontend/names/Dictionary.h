// The names of one translated type, and the numbers that stand for them in keys, action data and
// rows.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pi::fe::proto {

// A name gets a number when it is first held, and keeps it for as long as anybody holds it: an
// update on its way, an entry or a member. The number is then free, but it is given out again only
// after all other numbers were. Fixed pairs come from the configuration and stay.
// Thread-safe; its lock is a leaf.
class Dictionary {
 public:
  // A name costs a row of up to 1,100 bytes in the store: 70 MB for all, at the worst.
  static constexpr size_t kMostNames = 65536;
  static constexpr size_t kMostBytes = 1000;  // of a name
  // Smaller numbers are for fixed pairs, such as ports: a name of a controller's own never gets the
  // number of a port that the switch has.
  static constexpr uint32_t kFirstGiven = 0x80000000;

  struct Held {
    uint32_t number = 0;
    bool isNew = false;  // the target may not have the pair
  };
  struct Pair {
    uint32_t number = 0;
    std::string name;
  };
  class Reading;

  explicit Dictionary(std::string type) : type_(std::move(type)) {}
  const std::string& type() const { return type_; }

  // Each holder is followed by one release(). Nothing when there are kMostNames; the second when
  // there is no such name.
  std::optional<Held> hold(std::string_view name);
  std::optional<Held> holdKnown(std::string_view name);
  void hold(uint32_t number, uint32_t holders = 1);
  void release(uint32_t number);

  std::optional<uint32_t> number(std::string_view name) const;
  // The number in decimal when it has no name.
  std::string name(uint32_t number) const;
  bool hasName(uint32_t number) const;

  // The pair that the target brings at a restart. False when the number has another name. A name
  // that has another number keeps that one for updates and queries.
  bool restoredIs(uint32_t number, std::string_view name);
  // After all pairs and their holders came back: numbers without a name get their decimal text, so
  // that controllers can delete the entries that hold them.
  void nameLost();
  // The fixed pairs, in place of the former ones; of each, whether a pair in use stands in its way.
  enum class Fault : uint8_t { none, nameIsTaken, numberIsTaken };
  std::vector<Fault> fixedAre(const std::vector<Pair>& pairs);

  // For the Write in progress. Pairs that the target has and nobody holds: it may delete them, and
  // says of each whether it did.
  std::vector<Pair> leaving();
  void storedIs(uint32_t number, bool isStored);
  bool isStored(uint32_t number) const;

  size_t size() const;  // names

 private:
  struct State {
    std::string name;    // empty: never told
    uint64_t since = 0;  // the latest reading when it got the name
    uint32_t holders = 0;
    bool isStored = false;
    bool isFixed = false;
    bool isLeaving = false;
    bool isGone = false;  // only readings still see the name
  };
  using States = absl::flat_hash_map<uint32_t, State>;

  Held holdLocked(uint32_t number, State* state);
  uint32_t freeNumberLocked();
  void nameLocked(uint32_t number, std::string_view name, State* state);
  void maybeForgetLocked(States::iterator pair);
  void purgeLocked();
  void unfixLocked();
  Fault fixLocked(const Pair& pair);

  const std::string type_;
  mutable std::mutex mutex_;  // guards the members below
  States states_;             // by number
  absl::flat_hash_map<std::string, uint32_t> numbers_;
  absl::flat_hash_set<uint32_t> idle_;  // stored, and held by nobody
  uint32_t next_ = kFirstGiven;
  std::set<uint64_t> readings_;  // that are alive
  uint64_t latestReading_ = 0;
  std::deque<std::pair<uint64_t, uint32_t>> gone_;  // the latest reading then, and the number
};

// While it lives, the names of all entries that stood when it began can be read. The dictionary
// outlives it.
class Dictionary::Reading {
 public:
  explicit Reading(Dictionary& dictionary);
  Reading(Reading&& other) noexcept
      : dictionary_(std::exchange(other.dictionary_, nullptr)), number_(other.number_) {}
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;
  ~Reading();

 private:
  Dictionary* dictionary_;
  uint64_t number_ = 0;
};

}  // namespace pi::fe::proto
