// Names of a program while it is read: from text to positions.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <string>

#include "p4/program/Node.h"
#include "p4/program/Program.h"

namespace P4 {

// The names of one section, such as "header" or "table".
class NameMap {
 public:
  explicit NameMap(const char* what) : what_(what) {}
  // Throws ProgramError when the name is taken.
  void add(const Node& place, const std::string& name, uint32_t position) {
    if (!positions_.emplace(name, position).second)
      place.fail(std::string("a second ") + what_ + " of the name " + quoted(name));
  }
  // Throws ProgramError when nothing has the name.
  uint32_t find(const Node& place, const std::string& name) const {
    const auto found = positions_.find(name);
    if (found == positions_.end())
      place.fail(std::string("no ") + what_ + " is named " + quoted(name));
    return found->second;
  }
  uint32_t find(const Node& node) const { return find(node, node.text()); }
  bool knows(const std::string& name) const { return positions_.contains(name); }

 private:
  const char* what_;
  absl::flat_hash_map<std::string, uint32_t> positions_;
};

// All that later sections refer to, and the program as far as it is read.
struct Names {
  Program program;
  NameMap headerTypes{"header type"};
  NameMap headers{"header"};
  NameMap stacks{"header stack"};
  NameMap unionTypes{"header union type"};
  NameMap unions{"header union"};
  NameMap unionStacks{"header union stack"};
  NameMap valueSets{"value set"};
  NameMap calculations{"calculation"};
  NameMap counters{"counter array"};
  NameMap meters{"meter array"};
  NameMap registers{"register array"};
  NameMap profiles{"action profile"};
  absl::flat_hash_map<uint32_t, uint32_t> actionsById;
  absl::flat_hash_map<std::string, uint32_t> actionsByName;  // the first of each name
  struct UnionMember {
    std::string name;
    uint32_t type = 0;
  };
  std::vector<std::vector<UnionMember>> unionMembers;  // by union type

  // `[header, field]`; `$valid$` gives validBit.
  FieldRef field(const Node& node) const;
  FieldRef numberField(const Node& node) const;  // the same; throws for varbit fields
  uint32_t fieldOfType(const Node& place, uint32_t type, const std::string& name) const;
  uint32_t memberOfUnion(const Node& place, uint32_t unionType, const std::string& name) const;
};

}  // namespace P4
