// Checks that the bytes of a row's value have the layout of its table's type. Another process wrote
// them, so nothing is taken on trust.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/lattice/types/TableType.h"

namespace Forwarder {

// Immutable: any thread may use it.
class ValueCheck {
 public:
  explicit ValueCheck(const Lattice::TableType& type);
  // Throws Lattice::TypeError when a packed value does not have the layout.
  void check(std::string_view value) const;

 private:
  struct Step {
    enum class Kind : uint8_t { bytes, array, action } kind = Kind::bytes;
    uint32_t size = 0;  // of the bytes, or of an array's element
  };
  static void addStep(const Lattice::Column& column, std::vector<Step>& steps);

  std::vector<Step> steps_;
  std::unordered_map<uint32_t, std::vector<Step>> actionSteps_;  // by action id
};

}  // namespace Forwarder
