/* What a target exports beyond the published interface, for pipelines that ask for more than its
 * plain encodings. */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Each is 0 or 1. */
typedef struct {
  /* In match keys, the high end of a range follows its low end, and a byte that is 1 when the value
   * is present, else 0, the value of an optional field (all zero when it is not present). */
  int fields;
  /* The default entry of a table can be written: as the entry with the key of one byte 0 in the
   * table PI_DEFAULT_ENTRY_TABLE(its id). No such entry: the program's default action stands. */
  int default_actions;
  /* The headers of packets are as the program has them on the wire: the fields in the P4Info's
   * order, bit behind bit, filled up to whole bytes at the end. */
  int packet_headers;
} pi_abilities_t;

#define PI_DEFAULT_ENTRY_TABLE(table_id) ((table_id) ^ 0x80000000u)

/* What the pipeline with these device data asks for; nothing when the target does not know them.
 * Any thread; device_data may be empty. */
void _pi_abilities(const char* device_data, size_t device_data_size, pi_abilities_t* abilities);

#ifdef __cplusplus
}
#endif
