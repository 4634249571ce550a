// The tables as packets read them.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <optional>
#include <vector>

#include "p4/match/TableIndex.h"

namespace P4 {

// A member of an action profile, maybe one of several copies that its weight makes.
struct Member {
  const ActionData* action[sides] = {};
  ActionData::Ptr ownAction;
  uint32_t handle = 0;
};

// Members that are active, in the order of their handles.
struct Group {
  std::vector<const Member*> active[sides];
};

struct Replica {
  uint32_t port = 0;
  uint16_t rid = 0;
  bool operator==(const Replica&) const = default;
};

struct Session {
  std::optional<uint32_t> port;
  std::optional<uint32_t> group;  // multicast group
  bool operator==(const Session&) const = default;
};

// There are two. Packets read the active one without a lock; a writer changes the other, makes it
// the active one, waits until no packet reads the former, and brings that up to date.
struct Side {
  int number = 0;
  std::vector<TableIndex> tables;
  std::vector<Outcome> defaults;  // by table
  absl::flat_hash_map<uint32_t, std::vector<Replica>> multicast;
  absl::flat_hash_map<uint32_t, Session> sessions;
  std::vector<std::vector<std::vector<uint64_t>>> valueSets;  // by use: members in words

  const std::vector<Replica>* replicas(uint32_t group) const {
    const auto found = multicast.find(group);
    return found == multicast.end() ? nullptr : &found->second;
  }
};

}  // namespace P4
