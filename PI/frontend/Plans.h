// How the entries of each table are checked and encoded, compiled once from the P4Info so that
// an update costs no search through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

enum class MatchKind : uint8_t { exact, lpm, ternary, range, optional, other };
enum class ActionScope : uint8_t { tableAndDefault, tableOnly, defaultOnly, groupAction };

// One match field, and where its bytes lie in a PI match key: the value in `bytes` bytes,
// big-endian; for LPM then the prefix length as a host-order 32-bit number, for ternary the mask.
struct FieldPlan {
  uint32_t id = 0;
  std::string name;
  MatchKind kind = MatchKind::exact;
  uint32_t bits = 0;
  uint32_t bytes = 0;
  uint32_t offset = 0;

  size_t keyBytes() const {
    if (kind == MatchKind::lpm) return bytes + sizeof(uint32_t);
    return kind == MatchKind::ternary ? 2 * bytes : bytes;
  }
};

struct ParamPlan {
  uint32_t id = 0;
  std::string name;
  uint32_t bits = 0;
  uint32_t bytes = 0;
  uint32_t offset = 0;  // in the PI action data, parameters in P4Info order
};

struct ActionPlan {
  uint32_t id = 0;
  std::string name;
  std::vector<ParamPlan> params;
  uint32_t dataBytes = 0;
  std::string unsupported;  // why the action cannot be programmed; empty when it can

  const ParamPlan* param(uint32_t paramId) const {
    for (const ParamPlan& param : params) {
      if (param.id == paramId) return &param;
    }
    return nullptr;
  }
};

struct ActionUse {
  uint32_t id = 0;
  ActionScope scope = ActionScope::tableAndDefault;
  const ActionPlan* action = nullptr;
};

struct TablePlan {
  uint32_t id = 0;
  std::string name;
  std::vector<FieldPlan> fields;  // in P4Info order
  uint32_t keyBytes = 0;
  std::vector<ActionUse> actions;
  bool needsPriority = false;
  bool isConst = false;
  bool hasInitialEntries = false;
  bool hasIdleTimeout = false;
  bool hasDirectCounter = false;
  bool hasDirectMeter = false;
  uint32_t implementationId = 0;  // an action profile; 0 for a direct table
  uint32_t constDefaultActionId = 0;
  p4::v1::Action defaultAction;  // the program's; action id 0 when it has none
  std::string unsupported;       // why entries cannot be programmed; empty when they can

  const ActionUse* actionUse(uint32_t actionId) const {
    for (const ActionUse& use : actions) {
      if (use.id == actionId) return &use;
    }
    return nullptr;
  }
};

}  // namespace pi::fe::proto
