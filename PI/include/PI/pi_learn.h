/* Learn digests: the types of the target interface. */
#pragma once

#include "PI/pi_base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t pi_learn_msg_id_t;

typedef struct {
  int32_t max_size;
  int64_t max_timeout_ns;
} pi_learn_config_t;

typedef struct {
  pi_dev_tgt_t dev_tgt;
  pi_p4_id_t learn_id;
  pi_learn_msg_id_t msg_id;
  size_t num_entries;
  size_t entry_size; /* bytes */
  char* entries;
} pi_learn_msg_t;

#ifdef __cplusplus
}
#endif
