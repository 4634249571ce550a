// Failures that forwarding agents report while the entries are not restored yet. Their entries are
// known only afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/lattice/Database.h"

namespace P4Runtime {

// Used with the activity lock held.
class EarlyReports {
 public:
  static constexpr size_t mostKept = 10000;

  // A report with texts of its own.
  struct Kept {
    Lattice::Report report() const;
    Lattice::Report given;  // without its texts
    std::string message;
    std::string subscriberName;
  };

  bool isOver() const { return isOver_; }
  void begin() { isOver_ = false; }  // at first, and when another restore begins
  // Keeps the latest failure of each entry and forwarding agent, until a success takes it back.
  // False when too many are kept: the failure is dropped.
  [[nodiscard]] bool keep(const Lattice::Report& report);
  void forgetOf(uint64_t subscriber);  // it has left
  // The entries are restored, or none survived: returns the kept failures, in the order
  // of their changes, and keeps no more.
  std::vector<Kept> end();

 private:
  using Reporter = std::pair<uint64_t, uint64_t>;  // entry handle, subscriber
  std::map<Reporter, Kept> kept_;
  bool isOver_ = false;
};

}  // namespace P4Runtime
