// Strings of translated types in constant entries: their numbers, and the entries that tell them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "pipeline/ConstantEntry.h"

namespace p4::config::v1 {
class P4Info;
}  // namespace p4::config::v1

namespace Pipeline {

struct DeviceConfig;

// A string has a number from 2^30 to 2^31 - 1, a hash of it, so that it keeps the number when other
// entries come and go. Two strings with the same hash get the next free numbers, in the order of
// the entries.
class EntryNames {
 public:
  explicit EntryNames(const p4::config::v1::P4Info& p4Info);

  // Whether the values of a match field or parameter are strings.
  template <typename Value>
  bool areOf(const Value& value) const {
    return value.bitwidth() == 0 && tables_.contains(value.type_name().name());
  }
  // The number in four bytes. Throws PipelineError for a string that cannot be.
  std::string bytes(const std::string& type, const std::string& name);
  std::vector<ConstantEntry> entries() const;  // of all strings so far

 private:
  const std::map<std::string, uint32_t> tables_;                    // by type
  std::map<std::string, std::map<std::string, uint32_t>> numbers_;  // by type and string
};

// Whether the table's constant entries are such strings.
bool holdsNames(uint32_t tableId);

// By type and number, as the constant entries of the configuration's tables tell.
using NamesByNumber = std::map<std::string, std::map<uint32_t, std::string>>;
NamesByNumber namesIn(const DeviceConfig& config, const p4::config::v1::P4Info& p4Info);

}  // namespace Pipeline
