// Whether the bytes of a row's value have the layout of its table's type: what another process
// wrote is not believed unseen.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/lattice/TableType.h"

namespace Forwarder {

// Immutable. Formats nothing unless there is a fault.
class ValueCheck {
 public:
  explicit ValueCheck(const Lattice::TableType& type);
  // What is wrong with a packed value, for people; empty when nothing is.
  std::string fault(std::string_view value) const;

 private:
  struct Step {
    enum class Kind : uint8_t { bytes, array, action } kind = Kind::bytes;
    uint32_t size = 0;  // of the bytes, or of an array's element
  };
  static void stepFor(const Lattice::Column& column, std::vector<Step>& steps);

  std::vector<Step> steps_;
  std::unordered_map<uint32_t, std::vector<Step>> actionSteps_;  // by action id
};

}  // namespace Forwarder
