// Through which the PI entry points ask the forwarding plane; the agent does the work.
#pragma once

#include <chrono>

#include "platform/lattice/doorbell/Question.h"

namespace P4Runtime {

struct PlaneAnswer {
  enum class Kind : uint8_t {
    answered,
    nobody,  // no forwarding agent answers questions, or all of them left before they did
    late     // the time was over
  };
  Kind kind = Kind::nobody;
  Lattice::Answer answer = {};
};

// Any thread, without the activity lock. Nothing is thrown.
class ForwardingPlane {
 public:
  virtual ~ForwardingPlane() = default;
  virtual PlaneAnswer ask(const Lattice::Question& question,
                          std::chrono::milliseconds patience) = 0;
};

// The process's; null until the agent has set it, before its server starts.
ForwardingPlane* TheForwardingPlane();
void TheForwardingPlaneIs(ForwardingPlane* plane);

}  // namespace P4Runtime
