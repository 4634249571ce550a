// One synthetic packet at a time: its header fields, given or drawn, and its bytes for a table.
#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "forwarder/traffic/TrafficPlan.h"

namespace Forwarder {

// The same seed and the same calls make the same packets.
// Threads: one at a time.
class SyntheticPacket {
 public:
  explicit SyntheticPacket(uint64_t seed) : random_(seed) {}

  void seedIs(uint64_t seed) { random_.seed(seed); }
  void fieldCountIs(size_t count);
  uint64_t draw(uint64_t below);  // a random number

  void beginNext();  // all fields are then undefined
  void fieldIs(FieldNumber field, const FieldValue& value);
  // Lays the packet out as the table matches it. An undefined field is drawn under the match of
  // `model`, a row of the table; without one, at random. Returns false when a value does not fit
  // its column: such a packet does not meet the table.
  bool assemble(const PlannedTable& table, const StoredRow* model);
  std::span<const uint8_t> bytes() const { return bytes_; }  // as assembled last
  // A number below `bound`, from all headers of the packet: the same in each run, unlike the hashes
  // of hash tables.
  uint64_t hash(uint64_t bound) const;

 private:
  void drawField(const MatchLayout& layout, const MatchField& field, const StoredRow* model,
                 FieldValue& value);

  std::mt19937_64 random_;
  uint64_t number_ = 0;  // of the packet
  std::vector<FieldValue> values_;
  std::vector<uint64_t> definedIn_;  // by field: the number of the packet that the value is of
  uint64_t otherHeaders_ = 0;        // stands for the headers that no table matches
  std::vector<uint8_t> bytes_;
};

}  // namespace Forwarder
