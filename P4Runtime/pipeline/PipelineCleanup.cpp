// Lets the running pipeline go when the agent is disabled, and brings it up again when it is
// enabled. Rows and records stay where they are.
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

}  // namespace

// Without a ready model no further Write begins; the one in progress still needs it.
void P4TableInfoSm::handleCleanupRequest() {
  SCRIVEL_TRACE(1, "P4TableInfoSm::", "handleCleanupRequest", tableInfo_->cleanupRequestId(),
                " query status count",
                services_.queryStatusDir->entityCollection().values().size());
  tableInfo_->tableInfoStateIs(P4TableInfoState::tableInfoNotReady);
  next_.reset();
  cleanupRequested_ = true;
  change_.close([this] { doChange(); });
}

void P4TableInfoSm::doCleanUp() {
  doForgetPipeline();
  tableInfo_->cleanupResponseIdIs(tableInfo_->cleanupRequestId());
}

void P4TableInfoSm::handleEnabled() {
  SCRIVEL_TRACE(1, "handleEnabled", " ", systemConfig_->enabled());
  maybeBringUpPipeline();
}

bool P4TableInfoSm::maybeBringUpPipeline() {
  if (!initialized()) return false;             // handleInitialized() reads the file
  if (!systemConfig_->enabled()) return false;  // handleEnabled() asks again
  handlePipelineConfigFile();
  return true;
}

}  // namespace P4Runtime
