// Which rows hold which objects of the program, as the agent wrote it down beside the program.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Forwarder {

// A plain value.
struct RowsMeaning {
  std::string kind;  // see pipeline/RowNames.h
  std::string name;  // of the table, profile, counter and so on, in the program
  uint32_t id = 0;   // of the same, in the P4Info
  std::vector<uint32_t> bits;
  bool operator==(const RowsMeaning&) const = default;
};

// A plain value.
struct ProgramNames {
  std::map<std::string, RowsMeaning, std::less<>> tables;  // by the name of the rows' table
  std::map<uint32_t, std::string> actions;                 // by id

  // Throws std::runtime_error with a message for people.
  static ProgramNames parse(const std::string& json);

  const RowsMeaning* table(std::string_view rows) const;  // null when it is not named
  bool operator==(const ProgramNames&) const = default;
};

}  // namespace Forwarder
