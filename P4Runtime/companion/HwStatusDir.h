// The hardware's state as forwarding agents publish it: the counters of the flows they program.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lattice/counters/FlowCounters.h"
#include "platform/orrery/Directory.h"

namespace P4Runtime {

// At "openflow/kestrelhwstatusdir". Call with the activity lock held.
class HwStatusDir : public Orrery::Directory {
 public:
  // `stateDirectory` is where the forwarding agents write their counters; empty: no counters.
  explicit HwStatusDir(std::string name, const std::string& stateDirectory = {});
  const char* typeName() const override { return "P4Runtime::HwStatusDir"; }

  // Every flow counter of that name, one for each forwarding agent that has it; valid until the
  // next call.
  const std::vector<Lattice::FlowCount>& flowCounterStatus(std::string_view flowName) const;
  // Whether any forwarding agent has, or has left, flow counters.
  bool anyFlowCounter() const { return reader_ && !reader_->empty(); }

 private:
  std::unique_ptr<Lattice::FlowCounterReader> reader_;
  mutable std::vector<Lattice::FlowCount> found_;
};

}  // namespace P4Runtime
