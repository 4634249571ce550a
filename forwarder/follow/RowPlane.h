// The plane that forwards packets by the rows of tables, as the following of tables sees it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/table/ProgrammedTable.h"
#include "platform/lattice/doorbell/Question.h"

namespace Forwarder {

struct PlaneRow {
  std::string_view key;
  std::string_view value;
  std::optional<std::string_view> former;  // the row's value until now; nothing: a new row
  uint64_t entryHandle = 0;                // 0: not known, or as it was
  RowPlace place = nullptr;                // as the plane gave it; null: it must look the row up
};

struct PlaneVerdict {
  uint16_t errorCode = 0;  // 0: taken
  std::string message;
  // The row refers to a row that may come later in the same pass, or one that still refers to it
  // may go: worth another try.
  bool mayBecomeTrue = false;
  // Of the row that was taken, until the row is erased or rebuild() begins; null: it has none.
  RowPlace place = nullptr;

  bool isTaken() const { return errorCode == 0; }
};

// Threads: one at a time. Errors: none is thrown; a refused row leaves the plane as it was.
// Packets see changes from commit() on, all at once.
class RowPlane {
 public:
  virtual ~RowPlane() = default;

  // Whether another program is to be executed. While it is, no row is written or deleted before
  // rebuild(), which takes all rows of the tables and sets their places. Packets meet the program
  // from commit() on.
  virtual bool isStale() = 0;
  virtual void rebuild(const std::vector<const ProgrammedTable*>& tables) = 0;

  virtual PlaneVerdict write(const ProgrammedTable& table, const PlaneRow& row) = 0;
  virtual PlaneVerdict erase(const ProgrammedTable& table, std::string_view key,
                             RowPlace place) = 0;
  // Has the processor fetch the memory behind a place, for a call that is to come.
  virtual void load(RowPlace place) const = 0;
  virtual void eraseAll(const ProgrammedTable& table) = 0;
  // The table has another type, of which its rows are rows as they stand. The plane lets the former
  // one go; isStale() may be true now.
  virtual void handleRetyped(const ProgrammedTable& table) = 0;
  // The row stays, and is from now on that of another entry.
  virtual void handleIs(const ProgrammedTable& table, std::string_view key, RowPlace place,
                        uint64_t entryHandle) = 0;
  // The row of a table with a counter counts from these numbers on, under its flow's handle.
  virtual void countsAre(const ProgrammedTable& table, std::string_view key,
                         const RowFlow& flow) = 0;
  virtual void commit() = 0;
  virtual void settle() = 0;  // work that a commit has left for later
  virtual Lattice::Answer answer(const Lattice::Question& question) = 0;
};

}  // namespace Forwarder
