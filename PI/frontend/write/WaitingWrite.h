// A Write that waits for its turn, with its updates checked.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>

#include "PI/frontend/write/WriteRun.h"
#include "PI/frontends/proto/device_mgr.h"

namespace pi::fe::proto {

class Pipeline;

// Filled in by the Write's thread, then by the thread that runs it.
struct WaitingWrite {
  const WriteUpdates& updates;
  pi_batch_fate_t fate;
  const DeviceMgr::Admit& admit;
  const EntityCaller* caller;          // null: it has no limits
  std::shared_ptr<Pipeline> pipeline;  // that its updates were checked with
  CheckedWrite checked;
  google::rpc::Status status{};
  std::exception_ptr error{};  // in place of the status
  std::chrono::steady_clock::time_point came = std::chrono::steady_clock::now();  // to its turn

  // For its turn; guarded by the lock of the turns.
  enum class State { waits, leads, done };
  State state = State::waits;
  std::condition_variable changed{};
};

}  // namespace pi::fe::proto
