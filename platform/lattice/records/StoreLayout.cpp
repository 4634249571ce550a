#include "platform/lattice/records/StoreLayout.h"

#include "platform/lattice/records/Packing.h"

namespace Lattice {

std::string JournalState::encode() const {
  std::string bytes;
  append(bytes, lastSequence);
  append(bytes, trimmedUpTo);
  append(bytes, typesVersion);
  append(bytes, lastTable);
  return bytes;
}

std::optional<JournalState> JournalState::decode(std::string_view bytes) {
  Unpacker from(bytes);
  JournalState state;
  state.lastSequence = from.take<uint64_t>();
  state.trimmedUpTo = from.take<uint64_t>();
  state.typesVersion = from.take<uint64_t>();
  state.lastTable = from.take<uint32_t>();
  if (!from.finished() || state.trimmedUpTo > state.lastSequence) return std::nullopt;
  return state;
}

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

std::optional<StoredRow> StoredRow::decode(std::string_view bytes) {
  if (bytes.size() < headSize) return std::nullopt;
  return StoredRow{loadAt<uint64_t>(bytes.data()), loadAt<uint64_t>(bytes.data() + 8),
                   bytes.substr(headSize)};
}

void JournalChange::encode(char* to) const {
  storeAt(to, sequence);
  storeAt(to + 8, entryHandle);
  storeAt(to + 16, table);
  storeAt(to + 20, flags);
  storeAt(to + 21, static_cast<uint16_t>(key.size()));
  storeAt(to + 23, static_cast<uint32_t>(value.size()));
  key.copy(to + headSize, key.size());
  value.copy(to + headSize + key.size(), value.size());
}

std::optional<JournalChange> JournalChange::takeFrom(std::string_view& bytes) {
  Unpacker from(bytes);
  JournalChange change;
  change.sequence = from.take<uint64_t>();
  change.entryHandle = from.take<uint64_t>();
  change.table = from.take<uint32_t>();
  change.flags = from.take<uint8_t>();
  const auto keySize = from.take<uint16_t>();
  const auto valueSize = from.take<uint32_t>();
  change.key = from.takeBytes(keySize);
  change.value = from.takeBytes(valueSize);
  if (from.bad() || change.flags > (deleted | unchanged)) return std::nullopt;
  bytes.remove_prefix(change.encodedSize());
  return change;
}

}  // namespace Lattice
