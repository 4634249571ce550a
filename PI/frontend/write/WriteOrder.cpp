// In which of a Write's batches each update runs.
#include "PI/frontend/write/WriteOrder.h"

#include <algorithm>

namespace pi::fe::proto {

using Subject = CheckedUpdate::Subject;
using p4::v1::Update;

namespace {

bool writesObject(const CheckedUpdate& update) {
  return update.subject == Subject::member || update.subject == Subject::group;
}

}  // namespace

uint32_t WriteOrder::level(const CheckedUpdate& update) {
  const auto place = static_cast<uint32_t>(levels_.size());
  levels_.push_back({update.slot.entry.get(), update.slot.hash, 0});
  const auto [at, isNew] = places_.insert(place);
  if (!isNew) levels_.pop_back();
  KeyLevel* const key = &levels_[*at];
  uint32_t level = isNew ? 0 : key->level + 1;
  if (update.profile != nullptr) {
    level = levelInProfile(update, key->entry, isNew, level);
  } else if (update.table->entity != nullptr && update.table->entity->isArray()) {
    level = levelInArray(update, level);
  }
  key->level = level;
  return level;
}

// An update of all cells comes after those of single cells before it, and before those behind it.
uint32_t WriteOrder::levelInArray(const CheckedUpdate& update, uint32_t level) {
  ArrayLevels& array = arrays_[update.table->entity];
  level = std::max(level, update.ofAllCells ? array.afterAny : array.afterAll);
  if (update.ofAllCells) array.afterAll = level + 1;
  array.afterAny = std::max(array.afterAny, level + 1);
  return level;
}

// Any earlier update of a key may fail, so the entry may end up pointing at the object of any of
// them; a key that is updated so often costs a batch each time anyway.
uint32_t WriteOrder::levelInProfile(const CheckedUpdate& update, const Entry* key, bool isNew,
                                    uint32_t level) {
  KeyHistory& history = keys_[key];
  const auto add = [&](const Entry& entry) {
    const ObjectIds named = references(update.profile->id, entry);
    history.references.insert(named.begin(), named.end());
    history.hasActionSet |= entry.kind == EntryKind::actionSet;
  };
  if (isNew) {
    const Entry* committed = store_.committed({update.slot.entry->key(), update.slot.hash});
    if (committed != nullptr) {
      add(*committed);
      history.size = sizeTaken(*update.profile, *committed);
    }
  }
  if (update.type != Update::DELETE) add(*update.slot.entry);
  level = levelByReferences(update, history, level);
  level = levelByProfile(update, &history, level);
  doRemember(update, history, level);
  return level;
}

uint32_t WriteOrder::levelByReferences(const CheckedUpdate& update, const KeyHistory& history,
                                       uint32_t level) {
  for (const ObjectId& object : history.references) {
    const auto found = objects_.find(object);
    if (found != objects_.end()) level = std::max(level, found->second.afterWrites);
  }
  if (!writesObject(update)) return level;
  const auto own = objects_.find(objectId(*update.slot.entry));
  return own == objects_.end() ? level : std::max(level, own->second.afterReferences);
}

// A profile is used in one style at a time, so the other style's updates come first; an update
// whose room is freed by an earlier one waits for it.
uint32_t WriteOrder::levelByProfile(const CheckedUpdate& update, KeyHistory* history,
                                    uint32_t level) {
  ProfileLevels& profile = profileLevels(update.profile->id);
  if (writesObject(update)) level = std::max(level, profile.afterActionSets);
  if (history->hasActionSet) level = std::max(level, profile.afterObjects);
  const Entry& entry = *update.slot.entry;
  const bool keeps = update.type == Update::MODIFY && entry.kind == EntryKind::keyAlone;
  if (keeps) return level;
  const bool isDelete = update.type == Update::DELETE;
  const uint64_t former =
      std::exchange(history->size, isDelete ? 0 : sizeTaken(*update.profile, entry));
  if (history->size > former) {
    profile.expectedSize += history->size - former;
    const uint64_t limit = update.profile->size;
    if (limit > 0 && profile.expectedSize > limit) level = std::max(level, profile.afterFreeing);
  }
  if (history->size < former) profile.afterFreeing = std::max(profile.afterFreeing, level + 1);
  return level;
}

void WriteOrder::doRemember(const CheckedUpdate& update, const KeyHistory& history,
                            uint32_t level) {
  for (const ObjectId& object : history.references) {
    uint32_t& after = objects_[object].afterReferences;
    after = std::max(after, level + 1);
  }
  ProfileLevels& profile = profileLevels(update.profile->id);
  if (history.hasActionSet) profile.afterActionSets = std::max(profile.afterActionSets, level + 1);
  if (!writesObject(update)) return;
  profile.afterObjects = std::max(profile.afterObjects, level + 1);
  objects_[objectId(*update.slot.entry)].afterWrites = level + 1;
}

WriteOrder::ProfileLevels& WriteOrder::profileLevels(uint32_t profileId) {
  const auto [found, isNew] = profiles_.try_emplace(profileId);
  if (isNew) found->second.expectedSize = use_.total(profileId).size;
  return found->second;
}

}  // namespace pi::fe::proto
