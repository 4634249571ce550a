// The cells of a register as the forwarding plane has them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/target/TargetSession.h"

namespace pi::fe::proto {

// For one query of a Read, on its thread, which asks in ascending order. Many cells are fetched at
// a time; where the forwarding plane does not tell, it is asked no more.
class RegisterCells {
 public:
  // `end`: the cells up to there will be asked for. The plan is a register's.
  RegisterCells(const TargetSession& session, const EntityPlan& plan, uint64_t end)
      : session_(session), plan_(plan), end_(end) {}

  // Big-endian; valid until the next call.
  std::optional<std::string_view> valueOf(uint64_t cell);

 private:
  void fetch(uint64_t first);

  const TargetSession& session_;
  const EntityPlan& plan_;
  const uint64_t end_;
  bool isTold_ = true;
  uint64_t mostAtOnce_ = 1;  // until the width of a cell is known
  std::string fetched_;
  uint64_t first_ = 0;
  uint64_t count_ = 0;  // of fetched cells
};

}  // namespace pi::fe::proto
