#include "P4Runtime/companion/HwStatusDir.h"

#include <utility>

namespace P4Runtime {

HwStatusDir::HwStatusDir(std::string name, const std::string& stateDirectory)
    : Directory(std::move(name)) {
  if (!stateDirectory.empty()) reader_ = Lattice::FlowCounterReader::create(stateDirectory);
}

const std::vector<Lattice::FlowCount>& HwStatusDir::flowCounterStatus(
    std::string_view flowName) const {
  if (reader_) reader_->counts(flowName, &found_);
  return found_;
}

}  // namespace P4Runtime
