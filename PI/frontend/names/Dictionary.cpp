// The names of one translated type and their numbers.
#include "PI/frontend/names/Dictionary.h"

#include <absl/strings/string_view.h>

#include <algorithm>
#include <utility>

namespace pi::fe::proto {

namespace {

absl::string_view keyOf(std::string_view name) { return {name.data(), name.size()}; }

}  // namespace

std::optional<Dictionary::Held> Dictionary::hold(std::string_view name) {
  const std::lock_guard lock(mutex_);
  const auto found = numbers_.find(keyOf(name));
  if (found != numbers_.end()) return holdLocked(found->second, &states_[found->second]);
  if (numbers_.size() >= kMostNames) return std::nullopt;
  const uint32_t number = freeNumberLocked();
  State& state = states_[number];
  nameLocked(number, name, &state);
  return holdLocked(number, &state);
}

std::optional<Dictionary::Held> Dictionary::holdKnown(std::string_view name) {
  const std::lock_guard lock(mutex_);
  const auto found = numbers_.find(keyOf(name));
  if (found == numbers_.end()) return std::nullopt;
  return holdLocked(found->second, &states_[found->second]);
}

void Dictionary::hold(uint32_t number, uint32_t holders) {
  const std::lock_guard lock(mutex_);
  State& state = states_[number];
  holdLocked(number, &state);
  state.holders += holders - 1;
}

Dictionary::Held Dictionary::holdLocked(uint32_t number, State* state) {
  ++state->holders;
  idle_.erase(number);
  return {number, !state->isStored || state->isLeaving};
}

void Dictionary::release(uint32_t number) {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(number);
  if (found == states_.end() || found->second.holders == 0) return;
  --found->second.holders;
  maybeForgetLocked(found);
}

void Dictionary::maybeForgetLocked(States::iterator pair) {
  State& state = pair->second;
  if (state.holders != 0 || state.isFixed || state.isGone) return;
  if (state.isStored) {
    if (!state.isLeaving) idle_.insert(pair->first);
    return;
  }
  const auto named = numbers_.find(state.name);
  if (named != numbers_.end() && named->second == pair->first) numbers_.erase(named);
  // A reading that began before the name came shows no entry with it.
  if (readings_.lower_bound(state.since) == readings_.end()) {
    states_.erase(pair);
    return;
  }
  state.isGone = true;
  gone_.emplace_back(latestReading_, pair->first);
}

void Dictionary::purgeLocked() {
  while (!gone_.empty() && (readings_.empty() || gone_.front().first < *readings_.begin())) {
    states_.erase(gone_.front().second);
    gone_.pop_front();
  }
}

// One that no reading can mean either.
uint32_t Dictionary::freeNumberLocked() {
  while (states_.contains(next_)) next_ = next_ == UINT32_MAX ? kFirstGiven : next_ + 1;
  return std::exchange(next_, next_ == UINT32_MAX ? kFirstGiven : next_ + 1);
}

void Dictionary::nameLocked(uint32_t number, std::string_view name, State* state) {
  state->name = name;
  state->since = latestReading_ + 1;
  numbers_.emplace(keyOf(name), number);
}

std::optional<uint32_t> Dictionary::number(std::string_view name) const {
  const std::lock_guard lock(mutex_);
  const auto found = numbers_.find(keyOf(name));
  return found == numbers_.end() ? std::nullopt : std::optional(found->second);
}

std::string Dictionary::name(uint32_t number) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(number);
  const bool hasNone = found == states_.end() || found->second.name.empty();
  return hasNone ? std::to_string(number) : found->second.name;
}

bool Dictionary::hasName(uint32_t number) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(number);
  return found != states_.end() && !found->second.name.empty();
}

bool Dictionary::restoredIs(uint32_t number, std::string_view name) {
  const std::lock_guard lock(mutex_);
  State& state = states_[number];
  if (state.name == name) {
    state.isStored = true;
    return true;
  }
  if (!state.name.empty()) return false;
  nameLocked(number, name, &state);
  state.isStored = true;
  if (state.holders == 0) idle_.insert(number);
  if (number >= next_) next_ = number == UINT32_MAX ? kFirstGiven : number + 1;
  return true;
}

void Dictionary::nameLost() {
  const std::lock_guard lock(mutex_);
  for (auto& [number, state] : states_) {
    const std::string text = std::to_string(number);
    if (state.name.empty() && !numbers_.contains(text)) nameLocked(number, text, &state);
  }
}

std::vector<Dictionary::Fault> Dictionary::fixedAre(const std::vector<Pair>& pairs) {
  const std::lock_guard lock(mutex_);
  unfixLocked();
  std::vector<Fault> faults;
  for (const Pair& pair : pairs) faults.push_back(fixLocked(pair));
  return faults;
}

// Those in use stay as any other, and so do those whose rows the next Write deletes.
void Dictionary::unfixLocked() {
  std::vector<uint32_t> former;
  for (auto& [number, state] : states_) {
    if (std::exchange(state.isFixed, false)) former.push_back(number);
  }
  for (const uint32_t number : former) maybeForgetLocked(states_.find(number));
}

Dictionary::Fault Dictionary::fixLocked(const Pair& pair) {
  const auto named = numbers_.find(pair.name);
  if (named != numbers_.end() && named->second != pair.number) return Fault::nameIsTaken;
  State& state = states_[pair.number];
  if (!state.name.empty() && (state.name != pair.name || state.isGone)) return Fault::numberIsTaken;
  if (state.name.empty()) nameLocked(pair.number, pair.name, &state);
  state.isFixed = true;
  idle_.erase(pair.number);
  return Fault::none;
}

std::vector<Dictionary::Pair> Dictionary::leaving() {
  const std::lock_guard lock(mutex_);
  std::vector<Pair> pairs;
  for (const uint32_t number : std::exchange(idle_, {})) {
    State& state = states_[number];
    state.isLeaving = true;
    pairs.push_back({number, state.name});
  }
  return pairs;
}

void Dictionary::storedIs(uint32_t number, bool isStored) {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(number);
  if (found == states_.end()) return;
  found->second.isStored = isStored;
  found->second.isLeaving = false;
  maybeForgetLocked(found);
}

bool Dictionary::isStored(uint32_t number) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(number);
  return found != states_.end() && found->second.isStored;
}

size_t Dictionary::size() const {
  const std::lock_guard lock(mutex_);
  return numbers_.size();
}

Dictionary::Reading::Reading(Dictionary& dictionary) : dictionary_(&dictionary) {
  const std::lock_guard lock(dictionary.mutex_);
  number_ = ++dictionary.latestReading_;
  dictionary.readings_.insert(number_);
}

Dictionary::Reading::~Reading() {
  if (dictionary_ == nullptr) return;
  const std::lock_guard lock(dictionary_->mutex_);
  dictionary_->readings_.erase(number_);
  dictionary_->purgeLocked();
}

}  // namespace pi::fe::proto
