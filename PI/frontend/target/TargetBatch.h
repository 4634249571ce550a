// A batch of target calls that stands beside the updates of controllers.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "PI/frontend/target/TargetSession.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// One batch at a time for a session, on the thread that runs it. The session outlives it. A batch
// that is not ended fails as a whole, and the target puts back all that was done.
class TargetBatch {
 public:
  using Statuses = std::vector<std::pair<uint32_t, p4::v1::Error>>;  // of failures

  // Throws a Refusal when the target takes no batch.
  explicit TargetBatch(const TargetSession& session);
  ~TargetBatch();
  TargetBatch(const TargetBatch&) = delete;
  TargetBatch& operator=(const TargetBatch&) = delete;

  // The calls of the element at the offset, in ascending order, with their status.
  void add(uint32_t offset, int status);
  // Waits for the forwarding plane. Failures by offset.
  Statuses end();

 private:
  const TargetSession& session_;
  Statuses statuses_;
  bool isOpen_ = true;
};

}  // namespace pi::fe::proto
