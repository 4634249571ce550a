// The metadata before a packet for the controller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/base/FieldText.h"

namespace Forwarder {

// Values by field name, as they were given.
using PuntValues = std::map<std::string, FieldValue, std::less<>>;

// Fields in ascending order of their ids, each in whole bytes of its own, big-endian; or packed,
// bit behind bit in the order of their lines. The field ingress_port takes the port; others take
// the given value, or 0. A plain value.
class PuntHeader {
 public:
  PuntHeader() = default;  // without fields: for a pipeline that has no packet_in
  // `lines` are "ID NAME BITWIDTH" as the agent publishes them, in any order; of a packed header in
  // its order, behind a line "packed". Throws CommandError
  // for lines that cannot be read, and for a value whose field is missing or too narrow.
  PuntHeader(std::string_view lines, const PuntValues& values);

  size_t size() const { return bytes_.size(); }
  // Nothing when ingress_port is too narrow for the port.
  std::optional<std::string> bytes(uint32_t port) const;
  std::string text() const;  // "ingress_port:32 reason:8"

 private:
  struct Field {
    uint32_t id = 0;
    std::string name;
    uint32_t bits = 0;
    size_t firstBit = 0;
  };
  static Field fieldOf(std::string_view line);
  size_t layOut(bool isPacked);
  void doPlace(const PuntValues& values);
  const Field* field(std::string_view name) const;

  std::vector<Field> fields_;
  std::string bytes_;  // with ingress_port 0
};

}  // namespace Forwarder
