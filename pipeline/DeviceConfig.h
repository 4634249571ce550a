// The device configuration inside a pipeline file: JSON under "p4rtc" with table type definitions,
// tables and queries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pipeline/ConstantEntry.h"
#include "pipeline/DeviceQuery.h"
#include "pipeline/Extensions.h"
#include "pipeline/TableLayout.h"

namespace Pipeline {

class Findings;

// The store keeps tables by their names, and has no room for longer ones.
inline constexpr size_t maxNameBytes = 256;

struct DeviceType {
  std::string name;
  std::string definition;
};

struct DeviceField {
  std::string name;
  std::string type;
};

// A constant entry as the file holds it: bytes in hexadecimal, not checked.
struct DeviceEntry {
  std::string key;
  uint32_t actionId = 0;
  std::string actionParams;
  uint32_t priority = 0;
  bool isInitial = false;    // else constant
  std::string trouble = {};  // why it could not be read
};

struct DeviceTable {
  TableKind kind = TableKind::match;
  std::string name;
  std::string type;
  uint32_t id = 0;
  std::vector<DeviceField> fields;
  std::vector<DeviceEntry> entries;
};

struct DeviceConfig {
  Extensions extensions;
  std::vector<DeviceType> types;
  std::vector<DeviceTable> tables;
  std::vector<DeviceQuery> queries;
};

DeviceConfig deviceConfig(const PipelineLayout& layout, const Extensions& extensions,
                          const std::vector<ConstantEntry>& entries);

std::string deviceConfigText(const DeviceConfig& config);

// Reads the device JSON. Nothing where the agent would find nothing to run (no JSON, no "p4rtc");
// that is an error, and so is each fault within. Constant entries are not looked into: a missing
// part reads as empty.
std::optional<DeviceConfig> parseDeviceConfig(std::string_view json, Findings* findings);

}  // namespace Pipeline
