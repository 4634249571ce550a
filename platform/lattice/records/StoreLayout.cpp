#include "platform/lattice/records/StoreLayout.h"

#include "platform/lattice/records/Packing.h"

namespace Lattice {

std::string TableRecord::encode() const {
  std::string bytes;
  append(bytes, number);
  appendText(bytes, typeName);
  appendText(bytes, definition);
  return bytes;
}

std::optional<TableRecord> TableRecord::decode(std::string_view bytes) {
  Unpacker from(bytes);
  TableRecord record;
  record.number = from.take<uint32_t>();
  record.typeName = from.takeText();
  record.definition = from.takeText();
  if (!from.finished()) return std::nullopt;
  return record;
}

}  // namespace Lattice
