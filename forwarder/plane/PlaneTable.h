// The rows of one table of the agent, as the engine takes them.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "forwarder/follow/RowPlane.h"
#include "p4/Engine.h"

namespace Forwarder {

// All throw P4::Refusal, and have then changed nothing.
class PlaneTable {
 public:
  virtual ~PlaneTable() = default;
  virtual void write(const PlaneRow& row) = 0;
  virtual void erase(std::string_view key) = 0;
  // The same for rows with places; see RowPlane.
  virtual RowPlace writePlaced(const PlaneRow& row) { return write(row), nullptr; }
  virtual void erasePlaced(std::string_view key, RowPlace) { erase(key); }
  // The row stays, under another handle.
  virtual void handleIs(std::string_view, RowPlace, uint64_t) {}
  // Before a commit: for objects of several rows.
  virtual void finish() {}
  virtual void countsAre(std::string_view, const RowFlow&) {}
  // Calls with each entry whose counts are to be told, at most `most` of them, going on where the
  // last call stopped; true at the end of the round.
  using CountsOf = std::function<void(uint64_t entryHandle, const P4::Counts& counts)>;
  virtual bool eachCount(size_t, const CountsOf&) { return true; }
  virtual void retellCounts() {}  // they are all told in the next round
};

}  // namespace Forwarder
