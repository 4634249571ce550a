// Which update of a batch each thread is running.
#include "PI/pi_extensions.h"

namespace {

struct BatchContext {
  uint32_t offset = 0;
  uint32_t controllerId = 0;
  uint64_t controllerMetadata = 0;
  const char* metadata = nullptr;
  size_t metadataSize = 0;
};

thread_local BatchContext current;
thread_local int batchUrgent = 1;
thread_local pi_batch_fate_t batchFate = PI_BATCH_SINGLE;
thread_local int batchFailed = 0;

}  // namespace

uint32_t pi_batch_current_offset() { return current.offset; }

uint32_t pi_batch_current_controller_id() { return current.controllerId; }

uint64_t pi_batch_current_controller_metadata() { return current.controllerMetadata; }

void pi_batch_current_metadata(const char** data, size_t* size) {
  *data = current.metadata;
  *size = current.metadataSize;
}

void pi_batch_current_set(uint32_t offset, uint32_t controller_id, uint64_t controller_metadata,
                          const char* metadata, size_t metadata_size) {
  current = {offset, controller_id, controller_metadata, metadata, metadata_size};
}

void pi_batch_current_clear() { current = {}; }

int pi_batch_urgent() { return batchUrgent; }

void pi_batch_urgent_set(int urgent) { batchUrgent = urgent; }

pi_batch_fate_t pi_batch_fate() { return batchFate; }

void pi_batch_fate_set(pi_batch_fate_t fate) { batchFate = fate; }

int pi_batch_failed() { return batchFailed; }

void pi_batch_failed_set(int failed) { batchFailed = failed; }
