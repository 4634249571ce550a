// The tables whose entries need no restore when another pipeline comes up in the same process.
#pragma once

#include <cstdint>
#include <map>
#include <string>
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
  // Ids of the tables whose rows are those of then, and mean the same in the model of now. The
  // model may have more actions.
  std::vector<uint32_t> ids() const;

 private:
  struct Definition {
    uint32_t rows = 0;  // number of their table
    FieldBitwidths key;
    std::map<uint32_t, FieldBitwidths> actions;
    bool needsPriority = false;
    std::string unprogrammable;
  };
  static bool holds(const Definition& now, const Definition& then);
  bool canStand(const ResourceId& rid) const;
  Definition definition(const ResourceId& rid, const Lattice::ArTableInterface& interface) const;

  const P4TableInfo& tableInfo_;
  std::map<uint32_t, Definition> tables_;  // none: not even one is certain
};

}  // namespace P4Runtime
