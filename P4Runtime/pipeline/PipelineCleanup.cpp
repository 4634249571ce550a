// Lets the running pipeline go when the agent is disabled, and brings it up again when it is
// enabled. Rows and records stay where they are.
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

}  // namespace

void P4TableInfoSm::batchStatusIs(Vela::Ptr<BatchStatus> batchStatus, Vela::ReactorLoop& loop) {
  batchStatus_ = std::move(batchStatus);
  batchChange_ = batchStatus_->inProgressAttribute().observe([this, &loop] {
    if (!cleanupWaits_ || batchStatus_->inProgress()) return;
    // Observers of what follows belong on the reactor.
    loop.post([this, alive = Vela::Ptr<P4TableInfoSm>(this)] { maybeFinishCleanup(); });
  });
}

// An update that fails is put back through the tables' interfaces, so the Write in progress still
// needs the model; without a ready one no further Write begins.
void P4TableInfoSm::handleCleanupRequest() {
  SCRIVEL_TRACE(1, "P4TableInfoSm::", "handleCleanupRequest", tableInfo_->cleanupRequestId(),
                " query status count",
                services_.queryStatusDir->entityCollection().values().size());
  tableInfo_->tableInfoStateIs(P4TableInfoState::tableInfoNotReady);
  cleanupWaits_ = batchStatus_ && batchStatus_->inProgress();
  if (!cleanupWaits_) doCleanUp();
}

bool P4TableInfoSm::maybeFinishCleanup() {
  if (!cleanupWaits_) return false;              // finished already
  if (batchStatus_->inProgress()) return false;  // another batch has begun; its end asks again
  cleanupWaits_ = false;
  doCleanUp();
  maybeBringUpPipeline();  // the agent may have been enabled meanwhile
  return true;
}

void P4TableInfoSm::doCleanUp() {
  doForgetPipeline();
  tableInfo_->cleanupResponseIdIs(tableInfo_->cleanupRequestId());
}

void P4TableInfoSm::handleEnabled() { maybeBringUpPipeline(); }

bool P4TableInfoSm::maybeBringUpPipeline() {
  if (!initialized()) return false;             // handleInitialized() reads the file
  if (!systemConfig_->enabled()) return false;  // handleEnabled() asks again
  if (cleanupWaits_) return false;              // maybeFinishCleanup() asks again
  handlePipelineConfigFile();
  return true;
}

}  // namespace P4Runtime
