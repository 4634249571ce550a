// Asks forwarding agents, and waits for their answers.
#pragma once

#include <atomic>
#include <memory>

#include "P4Runtime/pi/ForwardingPlane.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// A question that gets no answer in time makes reads wait for no other one, until there is an
// answer to any: they take what is known. The database outlives it.
class PlaneQuestions : public ForwardingPlane {
 public:
  explicit PlaneQuestions(Lattice::Database& tables) : tables_(tables) {}
  PlaneAnswer ask(const Lattice::Question& question, std::chrono::milliseconds patience) override;

 private:
  Lattice::Database& tables_;
  const std::shared_ptr<std::atomic<bool>> isSilent_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace P4Runtime
