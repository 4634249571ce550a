#include "p4/tables/TableStore.h"

#include <algorithm>
#include <utility>

#include "p4/program/ProgramError.h"
#include "p4/tables/Refusal.h"

namespace P4 {
namespace {

constexpr uint32_t highestPriority = 2147483647;

[[noreturn]] void refuse(RefusalKind kind, const Table& table, const std::string& why) {
  throw Refusal(kind, "table " + table.name + " " + why);
}

// From the fields packed tightly, right-aligned, to each in words of its own.
std::vector<uint64_t> spreadMember(Number member, const ValueSetUse& use) {
  std::vector<uint64_t> words(use.words);
  size_t at = words.size();
  for (size_t field = use.bits.size(); field-- > 0;) {  // the last field is lowest
    const uint32_t count = (use.bits[field] + 63) / 64;
    const Number element = member & lowMask(use.bits[field]);
    at -= count;
    for (uint32_t word = 0; word < count; ++word) words[at + word] = wordOf(element, word);
    member >>= use.bits[field];
  }
  return words;
}

}  // namespace

TableStore::TableStore(const Program& program, const Image& image)
    : program_(program), image_(image), tables_(program.tables.size()) {
  for (int number = 0; number < P4::sides; ++number) {
    Side& side = sides_.sideNumber(number);
    for (const KeyShape& shape : image.shapes) side.tables.emplace_back(shape);
    side.defaults.resize(program.tables.size());
    side.valueSets.resize(image.valueSetUses.size());
  }
  for (uint32_t i = 0; i < program.profiles.size(); ++i)
    profiles_.push_back(std::make_unique<ProfileStore>(program, i, sides_));
  for (uint32_t table = 0; table < program.tables.size(); ++table) {
    if (program.tables[table].defaultAction)
      putDefault(table, encodeAction(program, *program.tables[table].defaultAction));
    addConstantEntries(table);
  }
  commit();
}

void TableStore::addConstantEntries(uint32_t table) {
  const Table& info = program_.tables[table];
  for (size_t i = 0; i < info.entries.size(); ++i) {
    const ConstantEntry& constant = info.entries[i];
    try {
      Entry::Ptr entry = encodeKey(info, image_.shapes[table], constant.match);
      entry->rank =
          info.kind == MatchKind::exact || info.kind == MatchKind::lpm ? 0 : constant.priority;
      for (size_t field = 0; field < info.key.size(); ++field)
        if (info.kind == MatchKind::lpm && info.key[field].kind == MatchKind::lpm)
          entry->prefixLength = constant.match[field].prefixLength;
      entry->ownAction = encodeAction(program_, constant.action);
      entry->outcome[0] = entry->outcome[1] = {.action = entry->ownAction.get()};
      if (!maybeAdd(entry, table))
        refuse(RefusalKind::alreadyExists, info, "has two equal entries");
    } catch (const Refusal& refusal) {
      throw ProgramError("pipelines, table " + info.name + ", entries[" + std::to_string(i) + "]",
                         refusal.what());
    }
  }
}

Entry::Ptr TableStore::keyOf(const EntryKey& key, Spares<Entry>* spares) const {
  if (key.table >= program_.tables.size())
    throw Refusal(RefusalKind::notFound, "there is no such table");
  const Table& table = program_.tables[key.table];
  Entry::Ptr entry = encodeKey(table, image_.shapes[key.table], key.match, spares);
  entry->table = key.table;
  if (table.kind == MatchKind::ternary || table.kind == MatchKind::range) {
    if (key.priority > highestPriority) refuse(RefusalKind::invalid, table, "has no such priority");
    entry->rank = highestPriority - key.priority;
  }
  for (size_t field = 0; table.kind == MatchKind::lpm && field < table.key.size(); ++field)
    if (table.key[field].kind == MatchKind::lpm)
      entry->prefixLength = key.match[field].prefixLength;
  return entry;
}

Entry* TableStore::staged(const Entry& key) const {
  return sides_.staged().tables[key.table].same(key);
}

void TableStore::checkWritable(uint32_t table) const {
  if (program_.tables[table].immutable)
    refuse(RefusalKind::constant, program_.tables[table],
           "has constant entries and takes no others");
}

void TableStore::checkAction(uint32_t table, uint32_t action) const {
  const std::vector<uint32_t>& actions = program_.tables[table].actions;
  if (std::find(actions.begin(), actions.end(), action) == actions.end())
    refuse(RefusalKind::invalid, program_.tables[table], "does not have the action");
}

Outcome TableStore::outcomeOf(const Table& table, const Target& target, ActionData::Ptr& own) {
  if (const auto* action = std::get_if<ActionSpec>(&target)) {
    if (table.type != TableKind::simple)
      refuse(RefusalKind::invalid, table, "takes members of its action profile, not actions");
    checkAction(static_cast<uint32_t>(&table - program_.tables.data()), action->action);
    own = encodeAction(program_, *action, &spareActions_);
    return {.action = own.get()};
  }
  if (table.type == TableKind::simple) refuse(RefusalKind::invalid, table, "has no action profile");
  ProfileStore& store = *profiles_[table.profile];
  if (const auto* member = std::get_if<MemberId>(&target)) return store.member(member->id);
  if (table.type != TableKind::indirectWithGroups)
    refuse(RefusalKind::invalid, table, "takes members, not groups");
  if (const auto* group = std::get_if<GroupId>(&target)) return store.group(group->id);
  return store.insertOneShot(std::get<OneShotSet>(target));
}

// Takes the entry, unless there is such a one.
bool TableStore::maybeAdd(Entry::Ptr& entry, uint32_t table) {
  entry->table = table;
  if (!sides_.maybeInsert(entry.get())) return false;
  Held& held = tables_[table];
  entry->handle = held.handles.take();
  entry->position = static_cast<uint32_t>(held.entries.size());
  held.entries.push_back(entry.release());
  return true;
}

Entry& TableStore::insert(const EntryKey& key, const Target& target, uint64_t timeToLive,
                          uint64_t cookie) {
  settle();
  Entry::Ptr entry = keyOf(key, &spareEntries_);
  checkWritable(key.table);
  const Table& table = program_.tables[key.table];
  const auto refuseEqual = [&table] {
    refuse(RefusalKind::alreadyExists, table, "has such an entry already");
  };
  if (tables_[key.table].entries.size() >= table.maxSize) {
    if (staged(*entry)) refuseEqual();
    refuse(RefusalKind::full, table, "is full with " + std::to_string(table.maxSize) + " entries");
  }
  const Outcome outcome = outcomeOf(table, target, entry->ownAction);
  entry->outcome[0] = entry->outcome[1] = outcome;
  entry->timeToLive = timeToLive;
  entry->cookie = cookie;
  if (table.meters != absent) entry->meter = std::make_unique<Meter>();
  Entry& added = *entry;
  if (!maybeAdd(entry, key.table)) {
    if (table.profile != absent) profiles_[table.profile]->removeOneShot(outcome);
    refuseEqual();
  }
  if (table.profile != absent) profiles_[table.profile]->use(outcome, 1);
  return added;
}

// The entry no longer points where it did.
void TableStore::letGo(Entry& entry) {
  const Table& table = program_.tables[entry.table];
  if (entry.ownAction) retiredActions_.push_back(std::move(entry.ownAction));
  if (table.profile == absent) return;
  const Outcome& outcome = entry.outcome[sides_.staged().number];
  profiles_[table.profile]->use(outcome, -1);
  profiles_[table.profile]->removeOneShot(outcome);
}

Entry& TableStore::modify(const EntryKey& key, const Target& target) {
  settle();
  const Entry::Ptr wanted = keyOf(key);
  checkWritable(key.table);
  Entry* entry = staged(*wanted);
  if (!entry) refuse(RefusalKind::notFound, program_.tables[key.table], "has no such entry");
  modify(*entry, target);
  return *entry;
}

void TableStore::modify(Entry& entry, const Target& target) {
  settle();
  checkWritable(entry.table);
  const Table& table = program_.tables[entry.table];
  ActionData::Ptr own;
  const Outcome outcome = outcomeOf(table, target, own);
  letGo(entry);
  entry.ownAction = std::move(own);
  if (table.profile != absent) profiles_[table.profile]->use(outcome, 1);
  sides_.setOutcome(&entry, outcome);
}

void TableStore::remove(const EntryKey& key) {
  settle();
  const Entry::Ptr wanted = keyOf(key);
  checkWritable(key.table);
  Entry* entry = staged(*wanted);
  if (!entry) refuse(RefusalKind::notFound, program_.tables[key.table], "has no such entry");
  remove(*entry);
}

void TableStore::remove(Entry& entry) {
  settle();
  checkWritable(entry.table);
  letGo(entry);
  sides_.remove(&entry);
  Held& held = tables_[entry.table];
  held.handles.give(entry.handle);
  held.entries[entry.position] = held.entries.back();
  held.entries[entry.position]->position = entry.position;
  held.entries.pop_back();
  if (entry.meter) setMeter(*entry.meter, std::nullopt);
  retiredEntries_.emplace_back(&entry);
}

Entry* TableStore::find(const EntryKey& key) {
  settle();
  const Entry::Ptr wanted = keyOf(key);
  Entry* found = staged(*wanted);
  if (found || !program_.tables[key.table].immutable) return found;
  return sides_.staged().tables[key.table].ofMatch(*wanted);
}

void TableStore::putDefault(uint32_t table, ActionData::Ptr action) {
  sides_.change(
      [table, data = action.get()](Side& side) { side.defaults[table] = {.action = data}; });
  retiredActions_.push_back(std::exchange(tables_[table].defaultAction, std::move(action)));
}

void TableStore::setDefault(uint32_t position, const std::optional<ActionSpec>& action) {
  settle();
  if (position >= program_.tables.size())
    throw Refusal(RefusalKind::notFound, "there is no such table");
  const Table& table = program_.tables[position];
  if (!action) {
    if (table.defaultAction)
      return putDefault(position, encodeAction(program_, *table.defaultAction));
    return putDefault(position, nullptr);
  }
  if (table.type != TableKind::simple)
    refuse(RefusalKind::invalid, table, "has an action profile; its default entry cannot be set");
  checkAction(position, action->action);
  ActionData::Ptr data = encodeAction(program_, *action);
  const bool other = table.defaultAction && table.defaultAction->action != action->action;
  if ((table.defaultActionConstant && other) || table.defaultArgumentsConstant)
    refuse(RefusalKind::constant, table, "has a constant default action");
  putDefault(position, std::move(data));
}

void TableStore::setMeter(Meter& meter, const std::optional<MeterRates>& rates) {
  settle();
  if (rates && rates->peakRate < rates->committedRate)
    throw Refusal(RefusalKind::invalid, "the peak rate of a meter is not below its committed rate");
  std::unique_ptr<const MeterConfig> config;
  if (rates) config = std::make_unique<MeterConfig>(MeterConfig{*rates, ++meterGeneration_});
  sides_.change(
      [&meter, wanted = config.get()](Side& side) { meter.configIs(side.number, wanted); });
  if (auto former = configs_.extract(&meter)) retiredConfigs_.push_back(std::move(former.mapped()));
  if (config) configs_.emplace(&meter, std::move(config));
}

void TableStore::setMeter(Entry& entry, const std::optional<MeterRates>& rates) {
  if (!entry.meter)
    refuse(RefusalKind::invalid, program_.tables[entry.table], "has no direct meters");
  setMeter(*entry.meter, rates);
}

void TableStore::setMulticast(uint32_t group, std::vector<Replica> replicas) {
  settle();
  sides_.change([group, replicas = std::move(replicas)](Side& side) {
    if (replicas.empty())
      side.multicast.erase(group);
    else
      side.multicast[group] = replicas;
  });
}

void TableStore::setSession(uint32_t session, const std::optional<Session>& value) {
  settle();
  sides_.change([session, value](Side& side) {
    if (value)
      side.sessions[session] = *value;
    else
      side.sessions.erase(session);
  });
}

void TableStore::setValueSet(uint32_t position, const std::vector<std::string>& members) {
  settle();
  if (position >= program_.valueSets.size())
    throw Refusal(RefusalKind::notFound, "there is no such value set");
  const ValueSet& set = program_.valueSets[position];
  for (const std::string& member : members)
    if (bitLength(numberOfBytes(member)) > set.bits)
      throw Refusal(RefusalKind::invalid, "value set " + set.name + ": a member does not fit " +
                                              std::to_string(set.bits) + " bits");
  for (size_t use = 0; use < image_.valueSetUses.size(); ++use) {
    if (image_.valueSetUses[use].set != position) continue;
    std::vector<std::vector<uint64_t>> encoded;
    for (const std::string& member : members)
      encoded.push_back(spreadMember(numberOfBytes(member), image_.valueSetUses[use]));
    sides_.change(
        [use, encoded = std::move(encoded)](Side& side) { side.valueSets[use] = encoded; });
  }
}

void TableStore::portIs(uint32_t port, bool up) {
  settle();
  for (const auto& profile : profiles_) profile->portIs(port, up);
}

void TableStore::publish() {
  settle();
  sides_.publish();
  isSettled_ = false;
}

// What no packet sees any more stays until the side that they left has let go of it.
void TableStore::settle() {
  if (std::exchange(isSettled_, true)) return;
  sides_.settle();
  for (const auto& profile : profiles_) profile->committed();
  retiredConfigs_.clear();
  for (Entry::Ptr& gone : retiredEntries_) {
    const uint32_t size = spareSize(image_.shapes[gone->table]);
    spareEntries_.keep(size, std::move(gone));
  }
  retiredEntries_.clear();
  for (ActionData::Ptr& gone : retiredActions_) {
    if (!gone) continue;
    const uint32_t words = gone->words;
    spareActions_.keep(words, std::move(gone));
  }
  retiredActions_.clear();
}

}  // namespace P4
