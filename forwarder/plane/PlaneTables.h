// The table of rows for each object of the program.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "forwarder/plane/CellTables.h"
#include "forwarder/plane/EntryTables.h"
#include "forwarder/plane/PlaneTable.h"
#include "forwarder/plane/ProfileTables.h"

namespace Forwarder {

// By the name of the table of entries; these books outlive programs.
using IdleBooks = std::map<std::string, IdleBook>;

// Makes the tables for one engine. Tables of rows are made in any order.
class PlaneTables {
 public:
  // All of these outlive the tables.
  PlaneTables(P4::Engine& engine, const ProgramNames& names, IdleBooks& idle, FlowBook& flows)
      : engine_(engine),
        names_(names),
        idle_(idle),
        flows_(flows),
        wantedDigests_(engine.program().learnLists.size()) {}

  // Null for rows that mean nothing to the program. Throws P4::Refusal when the program lacks the
  // object that the rows are of.
  std::unique_ptr<PlaneTable> make(const std::string& rows, const Lattice::TableType& type);
  void forget(const PlaneTable& table);  // before it goes alone
  // Of the table with that id in the P4Info; null: it has no rows, or is none of the program's.
  const EntryTable* entriesOf(uint32_t tableId) const;
  // By learn list: the digest's id in the P4Info; 0: controllers do not want it.
  const std::vector<uint32_t>& wantedDigests() const { return wantedDigests_; }

 private:
  std::unique_ptr<PlaneTable> makeEntries(const RowsMeaning& meaning,
                                          const Lattice::TableType& type);
  std::unique_ptr<PlaneTable> makeOfProfile(const RowsMeaning& meaning,
                                            const Lattice::TableType& type);
  std::unique_ptr<PlaneTable> makeCells(const RowsMeaning& meaning, const Lattice::TableType& type);
  IdleBook* idleBook(const std::string& table);

  P4::Engine& engine_;
  const ProgramNames& names_;
  IdleBooks& idle_;
  FlowBook& flows_;
  std::vector<uint32_t> wantedDigests_;
  std::map<std::string, EntryTable*> entries_;             // by name in the program; may be null
  std::map<std::string, std::shared_ptr<Groups>> groups_;  // by profile
  std::map<std::string, std::shared_ptr<CellArrays>> arrays_;  // by kind and name
};

}  // namespace Forwarder
