#include "platform/brine/ChangeLog.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace Brine {
namespace {

constexpr uint32_t withdrawn = RingEntry::replaced | RingEntry::withdrawn;

uint32_t flagsOf(ChangeLog::Void why) {
  return why == ChangeLog::Void::withdrawn ? withdrawn : RingEntry::replaced;
}

}  // namespace

ChangeLog::ChangeLog(StoreFile& file, SlotSpace& slots)
    : file_(file),
      slots_(slots),
      committed_(file.word(CommitWord::committed)),
      settled_(file.word(CommitWord::settled)),
      trimmed_(file.word(CommitWord::trimmed)),
      first_(committed_ + 1) {
  if (settled_ > committed_) damaged(file.directory(), "its outcomes lead its changes");
}

void ChangeLog::trimmedIs(uint64_t sequence) {
  if (sequence <= trimmed_) return;
  trimmed_ = sequence;
  file_.wordIs(CommitWord::trimmed, sequence);
}

void ChangeLog::add(const LoggedChange& change) {
  const uint64_t sequence = next();
  const uint32_t size = file_.head().changes;
  // The place is an older change's, which cannot be followed from now on.
  if (sequence > trimmed_ + size) trimmedIs(sequence - size + size / 8);
  changes_.push_back(change);
  RingEntry& entry = file_.ring(sequence);
  store(entry.sequence, 0);
  entry.owner = change.owner;
  entry.now = change.now;
  entry.before = change.before;
  entry.table = change.table;
  entry.flags = change.flags;
  store(entry.sequence, stamped(sequence, entrySalt(entry)));
}

void ChangeLog::voidIs(uint64_t sequence, Void why) {
  LoggedChange& change = at(sequence);
  change.now = change.before = 0;
  change.flags |= flagsOf(why);
  RingEntry& entry = file_.ring(sequence);
  if (numberIn(load(entry.sequence)) == sequence) sayNothing(entry, why);
}

// A reader that looks at it meanwhile takes it for lost.
void ChangeLog::sayNothing(RingEntry& entry, Void why) {
  const uint64_t sequence = numberIn(load(entry.sequence));
  entry.flags |= flagsOf(why);
  store(entry.sequence, stamped(sequence, entrySalt(entry)));
}

void ChangeLog::commit() {
  const uint64_t last = next() - 1;
  file_.wordIs(CommitWord::committed, last);
  for (uint64_t sequence = committed_ + 1; sequence <= last; ++sequence) {
    const LoggedChange& change = at(sequence);
    if (change.before != 0) dead_.push_back({change.before, sequence});
    // Of an absent record: it was there for followers to read.
    const bool neverSeen = change.now != 0 && (change.flags & RingEntry::deleted);
    if (neverSeen) dead_.push_back({change.now, sequence});
  }
  committed_ = last;
}

void ChangeLog::dropOpen() {
  const uint64_t last = next() - 1;
  changes_.resize(committed_ + 1 - first_);
  sayNothingUpTo(last);
  sayNothingUpTo(trimmed_);  // followers could not reach a place behind the last commit
}

void ChangeLog::sayNothingUpTo(uint64_t sequence) {
  while (next() <= sequence) {
    LoggedChange nothing;
    nothing.flags = withdrawn;
    add(nothing);
  }
}

void ChangeLog::recallUnsettled(const std::function<bool(const RingEntry&)>& isUsable) {
  const uint64_t kept = std::min<uint64_t>(committed_ - settled_, file_.head().changes);
  first_ = committed_ + 1 - kept;
  for (uint64_t sequence = first_; sequence <= committed_; ++sequence) {
    LoggedChange& change = changes_.emplace_back();
    const auto entry = file_.change(sequence);
    if (entry && !(entry->flags & RingEntry::replaced) && isUsable(*entry)) {
      change = {entry->owner, entry->now, entry->before, entry->table, entry->flags};
    } else {
      change.flags = RingEntry::replaced;
    }
  }
}

// A version that had been taken up again lies in one of the slots, and followers may still have to
// hear of the change that had ended it: they cannot follow from before that change.
void ChangeLog::abandon(const std::vector<Ref>& open) {
  const std::unordered_set<Ref> refs(open.begin(), open.end());
  const auto isAffected = [&](uint64_t sequence) {
    const auto entry = file_.change(sequence);
    return !entry || refs.contains(entry->before);
  };
  for (uint64_t at = committed_; !open.empty() && at > trimmed_; --at) {
    if (isAffected(at)) trimmedIs(at);
  }
  std::unordered_map<Ref, uint64_t> ends;  // of versions that an undoing may still need
  for (uint64_t at = first_; at <= committed_; ++at) {
    const Ref before = changes_[at - first_].before;
    if (before != 0 && at > 1) ends[before] = at;
  }
  for (const Ref ref : open) {
    if (const auto end = ends.find(ref); end != ends.end()) {
      becomeFormerAgain(ref, end->second);
    } else {
      store(file_.slot(ref).begin, 0);
      slots_.release(ref);
    }
  }
  std::ranges::sort(dead_, {}, &Dead::end);
  sayNothingUpTo(trimmed_);
}

// Its end first: until it has a beginning again it is looked after here.
void ChangeLog::becomeFormerAgain(Ref ref, uint64_t end) {
  SlotHead& slot = file_.slot(ref);
  store(slot.end, stamped(end, endSalt(ref)));
  store(slot.begin, stamped(std::clamp<uint64_t>(settled_, 1, end - 1), beginSalt(ref)));
  dead_.push_back({ref, end});
}

void ChangeLog::forgetTable(uint32_t table) {
  std::erase_if(dead_, [&](const Dead& dead) { return slots_.tableOf(dead.ref) == table; });
  for (LoggedChange& change : changes_) {
    if (change.table != table) continue;
    change.now = change.before = 0;
    change.flags |= RingEntry::replaced;
  }
  for (uint64_t sequence = std::min(trimmed_, settled_) + 1; sequence < next(); ++sequence) {
    RingEntry& entry = file_.ring(sequence);
    if (entry.table == table && numberIn(load(entry.sequence)) == sequence) sayNothing(entry);
  }
}

void ChangeLog::settle() {
  if (settled_ == committed_) return;
  const auto open = changes_.begin() + static_cast<ptrdiff_t>(committed_ + 1 - first_);
  changes_.erase(changes_.begin(), open);
  first_ = committed_ + 1;
  settled_ = committed_;
  file_.wordIs(CommitWord::settled, settled_);
}

bool ChangeLog::trim(uint64_t sequence, size_t atMost) {
  size_t goes = 0;
  sequence = std::max(sequence, trimmed_);  // nobody can ask for what the ring does not tell
  for (; goes < dead_.size() && dead_[goes].end <= settled_; ++goes) {
    if (dead_[goes].end > sequence && dead_.size() - goes <= atMost) break;
  }
  if (goes == 0) return false;
  trimmedIs(dead_[goes - 1].end);
  for (; goes > 0; --goes) {
    const Dead dead = dead_.front();
    dead_.pop_front();
    SlotHead& slot = file_.slot(dead.ref);
    // An undoing may have taken it up again, or it went before.
    if (slot.begin == 0 || slot.end != stamped(dead.end, endSalt(dead.ref))) continue;
    store(slot.begin, 0);
    slots_.release(dead.ref);
  }
  return true;
}

}  // namespace Brine
