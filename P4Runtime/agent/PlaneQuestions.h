// Asks forwarding agents, and waits for their answers.
#pragma once

#include "P4Runtime/pi/ForwardingPlane.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// The database outlives it.
class PlaneQuestions : public ForwardingPlane {
 public:
  explicit PlaneQuestions(Lattice::Database& tables) : tables_(tables) {}
  PlaneAnswer ask(const Lattice::Question& question, std::chrono::milliseconds patience) override;

 private:
  Lattice::Database& tables_;
};

}  // namespace P4Runtime
