// The parts of the agent that its monitoring shows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "P4Runtime/companion/PortMapping.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/orrery/Database.h"

namespace P4Runtime {

// All outlive the monitoring. Read it with the activity lock held.
struct Observed {
  Orrery::Database& stateDatabase;
  Lattice::Database& tables;
  Brine::Store& store;
  Vela::Ptr<const P4TableInfo> tableInfo;
  Vela::Ptr<const P4RuntimeConfig::PortMappingStatus> portMapping;
};

// Entities that are shown with all their attributes, by their paths in the state database.
inline constexpr const char* agentStatusPath = "p4runtime/status/agent";
inline constexpr const char* systemStatusPath = "p4runtime/status/system";
inline constexpr const char* packetStatusPath = "p4runtime/status/packets";
inline constexpr const char* failuresPath = "p4runtime/status/failures";

struct TableFill {
  std::string name;
  uint64_t entries = 0;
  uint64_t size = 0;  // 0: not limited
};
// Of all tables that have rows of their own, by name.
std::vector<TableFill> tableFills(const P4TableInfo& tableInfo);

// The text of an attribute of the entity at that path. Empty without such an entity or attribute.
std::string attributeText(const Orrery::Database& database, const std::string& path,
                          const std::string& attribute);

struct ProcessUse {
  uint64_t residentBytes = 0;
  uint64_t openDescriptors = 0;
  double startSeconds = 0;  // since 1970
  double cpuSeconds = 0;
};
ProcessUse processUse();

}  // namespace P4Runtime
