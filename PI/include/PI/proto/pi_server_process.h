/* What the process that runs the P4Runtime gRPC server tells it of itself. Functions may be called
 * from any thread. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Before the first server starts: no other device will come. Until the first pipeline is there, any
 * other id passes for a device that is still to come, unless this was called. */
void PIGrpcServerOnlyDeviceIs(uint64_t device_id);

/* What some controllers need beyond the letter of P4Runtime; each 0 unless set. At once. */
typedef struct {
  int device_zero;          /* device id 0 stands for the only device */
  int no_pipeline_is_error; /* GetForwardingPipelineConfig without one: FAILED_PRECONDITION */
} PIGrpcServerLenience_t;
void PIGrpcServerLenienceIs(const PIGrpcServerLenience_t* lenience);

#ifdef __cplusplus
}
#endif
