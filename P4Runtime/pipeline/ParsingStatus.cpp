#include "P4Runtime/pipeline/ParsingStatus.h"

namespace P4Runtime {

bool ParsingStatus::failureIs(const std::string& lattice, const std::string& what,
                              const std::string& json) {
  if (failed() && lattice == latticeError() && what == error() && json == jsonError()) return false;
  latticeErrorIs(lattice);
  errorIs(what);
  jsonErrorIs(json);
  failuresIs(failures() + 1);
  failedIs(true);
  return true;
}

void ParsingStatus::failureCleared() {
  latticeErrorIs("");
  errorIs("");
  jsonErrorIs("");
  failedIs(false);
}

ParsingStatus* TheParsingStatus() {
  static const auto* status = new Vela::Ptr<ParsingStatus>(Vela::make<ParsingStatus>("pipeline"));
  return status->get();
}

}  // namespace P4Runtime
