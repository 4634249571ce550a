#include "P4Runtime/pipeline/ParsingStatus.h"

#include "P4Runtime/pi/P4RuntimeException.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeException");

constexpr size_t mostJson = 60;    // bytes of it that are shown
constexpr size_t mostText = 1000;  // of all

}  // namespace

bool ParsingStatus::failureIs(const std::string& lattice, const std::string& what,
                              const std::string& json, const std::string& help) {
  if (failed() && lattice == latticeError() && what == error() && json == jsonError()) return false;
  latticeErrorIs(lattice);
  errorIs(what);
  jsonErrorIs(json);
  hintIs(help);
  std::string line = what;
  if (!lattice.empty()) line += ": " + lattice;
  if (!json.empty()) line += "; JSON stops making sense at: " + json.substr(0, mostJson);
  if (!help.empty()) line += "; " + help;
  textIs(Vela::plainLine(line, mostText));
  failuresIs(failures() + 1);
  failedIs(true);
  return true;
}

void ParsingStatus::failureCleared() {
  latticeErrorIs("");
  errorIs("");
  jsonErrorIs("");
  hintIs("");
  textIs("");
  failedIs(false);
}

ParsingStatus* TheParsingStatus() {
  static const auto* status = new Vela::Ptr<ParsingStatus>(Vela::make<ParsingStatus>("pipeline"));
  return status->get();
}

void P4RuntimeParsingException::handleException(const P4RuntimeParsingException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeParsingException", " latticeError: ", e.latticeError,
                " error: ", e.error, " jsonError: ", e.jsonError);
  if (!TheParsingStatus()->failureIs(e.latticeError, e.error, e.jsonError, e.hint)) return;
  Vela::tellError("pipeline: {}", TheParsingStatus()->text());
}

}  // namespace P4Runtime
