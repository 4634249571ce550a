// The tables whose entries need no restore when another pipeline comes up in the same process.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/pipeline/P4TableInfo.h"

namespace P4Runtime {

// Handles, rows, records and the front end agree on every entry once a restore is through, and
// Writes keep it so. Anything that leaves a doubt must forget that. Call with the activity lock
// held.
class StandingTables {
 public:
  explicit StandingTables(const P4TableInfo& tableInfo) : tableInfo_(tableInfo) {}

  void remember();  // all entries are restored, into the tables of the model
  void forget() { tables_.clear(); }
  // Ids of the tables that the model defines as it did then, in rows of the same type.
  std::vector<uint32_t> ids() const;

 private:
  struct Definition {
    std::string rows;  // name of the table, and its type
    FieldBitwidths key;
    std::vector<std::pair<uint32_t, FieldBitwidths>> actions;
    bool needsPriority = false;
    std::string unprogrammable;
    friend bool operator==(const Definition&, const Definition&) = default;
  };
  bool canStand(const ResourceId& rid) const;
  Definition definition(const ResourceId& rid, const Lattice::ArTableInterface& interface) const;

  const P4TableInfo& tableInfo_;
  std::map<uint32_t, Definition> tables_;  // none: not even one is certain
};

}  // namespace P4Runtime
