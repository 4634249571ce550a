// Builds the rows of one table from field pointers.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/lattice/types/TableType.h"
#include "platform/vela/Ptr.h"

namespace Lattice {

// A field pointer of an array column points to this.
struct ArrayField {
  const void* elements = nullptr;  // uint32_t or uint64_t, host order
  uint32_t count = 0;
};

// Whether a table's "table_fields", one element a slot, agree with the key columns of its type, in
// order: names and types alike. A mask may go by its value's name; the priority need not be listed;
// a slot of type "PrefixLen" belongs to the IpGenPrefix before it and has no column. Throws
// TypeError.
void requireTableFields(const TableType& type, const std::vector<std::string>& fieldNames,
                        const std::vector<std::string>& fieldTypes);

// Fields come in the order: key columns but the priority, value parts, priority. A column of an
// integer type points to the integer in host order (little-endian, unaligned is fine), one of
// another type to its bytes; an action part to its id (uint32_t) followed by one pointer a field of
// that action (a Void field consumes a pointer and reads nothing); a meter part to flag (uint8_t),
// cir, cburst, pir, pburst (uint64_t), five pointers; a counter to flag, bytes, packets, three.
class RowConstructor : public Vela::RefCounted {
 public:
  // Throws TypeError for an unknown type name, and as requireTableFields() does.
  RowConstructor(const std::string& typeName, const std::vector<std::string>& fieldNames,
                 const std::vector<std::string>& fieldTypes);

  const TableType& type() const { return *type_; }
  // Throws TypeError for an action id the type does not have, or a wrong number of fields.
  Row construct(std::span<const uint8_t* const> fields) const;
  // From the key fields alone, then the priority if the type has one.
  std::string constructKey(std::span<const uint8_t* const> keyFields) const;

 private:
  struct Plan;
  std::shared_ptr<const TableType> type_;
  std::shared_ptr<const Plan> plan_;  // each column's copying, worked out once
};

}  // namespace Lattice
