// The ports that members of groups and of action sets watch, as rows of their own.
#include "PI/frontend/store/WatchPorts.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

namespace {

constexpr uint32_t kPortBits = 32;
constexpr size_t kKeyBytes = 2 * kNumberBytes;

template <typename Element>
uint32_t portOf(const ProfilePlan& profile, const Element& element, const Naming& naming) {
  const std::string& port = element.watch_port();
  if (!element.has_watch_port()) return static_cast<uint32_t>(element.watch());
  if (port.empty()) return 0;
  if (profile.ports != nullptr) {
    if (naming.pins == nullptr) return profile.ports->number(port).value_or(0);
    return numberOf(*profile.ports, port, naming,
                    {"action profile ", profile.name, ": watch_port"});
  }
  if (!profile.portsAreNumbers || !fits(port, kPortBits)) return 0;
  uint32_t number = 0;
  for (const char byte : significant(port)) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

WatchedPorts portsOfGroup(const EntryStore& store, const ProfilePlan& profile, const Entry& entry) {
  WatchedPorts ports;
  for (const auto& member : peekedGroup(entry).members()) {
    const uint32_t port = watchedPort(profile, member);
    if (port == 0) continue;
    const ObjectLookup lookup({profile.id, false, member.member_id()});
    const Entry* object = store.committed(lookup.lookup());
    if (object != nullptr) ports[watchKey(entry.handle, object->handle)] = port;
  }
  return ports;
}

WatchedPorts portsOfSet(const ProfilePlan& profile, const Entry& entry) {
  WatchedPorts ports;
  const auto& elements = peekedActionSet(entry).action_profile_actions();
  HiddenHandles handles;
  for (int i = 0; i < elements.size(); ++i) {
    const uint32_t port = watchedPort(profile, elements[i]);
    if (port == 0) continue;
    if (handles.members.empty()) handles = hiddenHandles(entry);
    ports[watchKey(handles.group, handles.members[static_cast<size_t>(i)])] = port;
  }
  return ports;
}

template <typename Elements>
bool anyWatches(const Elements& elements) {
  return std::ranges::any_of(elements, [](const auto& element) {
    return element.watch() != 0 || !element.watch_port().empty();
  });
}

}  // namespace

bool watchesAny(const Entry& entry) {
  return entry.kind == EntryKind::groupObject
             ? anyWatches(peekedGroup(entry).members())
             : anyWatches(peekedActionSet(entry).action_profile_actions());
}

uint32_t watchedPort(const ProfilePlan& profile, const p4::v1::ActionProfileGroup::Member& element,
                     const Naming& naming) {
  return portOf(profile, element, naming);
}

uint32_t watchedPort(const ProfilePlan& profile, const p4::v1::ActionProfileAction& element,
                     const Naming& naming) {
  return portOf(profile, element, naming);
}

std::string watchKey(uint64_t group, uint64_t member) {
  std::string key(kKeyBytes, '\0');
  auto* at = reinterpret_cast<uint8_t*>(key.data());
  putNumber(static_cast<uint32_t>(group), at);
  putNumber(static_cast<uint32_t>(member), at + kNumberBytes);
  return key;
}

WatchedPorts watchedPorts(const EntryStore& store, const ProfilePlan& profile, const Entry& entry) {
  if (entry.kind == EntryKind::groupObject) return portsOfGroup(store, profile, entry);
  return entry.kind == EntryKind::actionSet ? portsOfSet(profile, entry) : WatchedPorts();
}

EntryPtr makeWatchRow(const TablePlan& rows, const std::string& key, uint32_t port) {
  const ActionPlan& action = *rows.actions.front().action;
  EntryPtr row = Entry::make(rows.id, key.size(), action.dataBytes, 0);
  row->actionId = action.id;
  std::memcpy(row->keyData(), key.data(), key.size());
  paramIs(action, 0, port, row.get());
  return row;
}

uint32_t portOfWatchRow(const TablePlan& rows, const Entry& row) {
  return static_cast<uint32_t>(paramOf(*rows.actions.front().action, 0, row));
}

// Against the rows that stand rather than the former ports: rows are the truth after a restart.
std::vector<Change> watchChanges(const EntryStore& store, const ProfilePlan& profile,
                                 const Entry* former, const Entry* now) {
  std::vector<Change> changes;
  if (profile.watchPorts == nullptr) return changes;
  const TablePlan& rows = *profile.watchPorts;
  const WatchedPorts after = now == nullptr ? WatchedPorts() : watchedPorts(store, profile, *now);
  const auto change = [&](const std::string& key, uint32_t port) {
    EntryPtr row = makeWatchRow(rows, key, port);
    const size_t hash = row->key().hash();
    const Entry* standing = store.committed({row->key(), hash});
    if (standing == nullptr ? port == 0 : portOfWatchRow(rows, *standing) == port) return;
    changes.push_back({{std::move(row), hash}, port == 0});
  };
  for (const auto& [key, port] : after) change(key, port);
  if (former == nullptr) return changes;
  for (const auto& [key, port] : watchedPorts(store, profile, *former)) {
    if (!after.contains(key)) change(key, 0);
  }
  return changes;
}

}  // namespace pi::fe::proto
