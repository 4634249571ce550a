/* What a target exports beyond the published interface, for pipelines that ask for more than its
 * plain encodings. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "PI/pi_base.h"
#include "PI/pi_counter.h"

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
  /* Multicast groups and other entities are written as entries of tables of their own, which
   * PI/frontends/proto/entity_tables.h tells. */
  int entities;
  /* Translated types may be strings to controllers. Keys, action data and packet headers have
   * numbers of 32 bits in their place, which the front end gives out; it keeps the strings as
   * entries of tables of their own, which PI/frontends/proto/translation_tables.h tells. */
  int strings;
  /* The watch ports of groups and one-shot sets are entries of tables of their own, one for each
   * member that watches a port; needs `entities`. */
  int watch_ports;
  /* Default entries have the direct resources of their tables; needs `default_actions`. */
  int default_resources;
} pi_abilities_t;

#define PI_DEFAULT_ENTRY_TABLE(table_id) ((table_id) ^ 0x80000000u)

/* What the pipeline with these device data asks for; nothing when the target does not know them.
 * Any thread; device_data may be empty. */
void _pi_abilities(const char* device_data, size_t device_data_size, pi_abilities_t* abilities);

/* The counts of `count` cells of an indexed counter from `first` on, all of one moment. `valid` is
 * 0 for a cell that nobody counts for. Any thread that may wait. */
void _pi_counter_cells_read(pi_dev_id_t dev_id, pi_p4_id_t counter_id, size_t first, size_t count,
                            pi_counter_data_t* counter_data);

/* Whether the switch has the port, as far as it can tell: 0 or 1. Any thread that may wait. */
int _pi_port_exists(uint32_t port);

/* Receives bytes that last until it returns. */
typedef void (*pi_bytes_receiver_t)(void* cookie, const char* bytes, size_t size);

/* A controller's push: `action` is a p4.v1.SetForwardingPipelineConfigRequest.Action, `config` a
 * serialized p4.v1.ForwardingPipelineConfig, NULL when the controller sent none. Waits until the
 * pipeline runs, so call it on a thread that may, without the target's lock. Returns a canonical
 * code of gRPC, with a message for the controller in `say`. When it is not 0 nothing has changed,
 * unless the message says otherwise. With 0 and VERIFY the message lists the reasons for which
 * RECONCILE_AND_COMMIT would be refused; there is no message without one. */
int _pi_pipeline_push(pi_dev_id_t dev_id, int action, const char* config, size_t config_size,
                      pi_bytes_receiver_t say, void* cookie);
/* The running pipeline as a controller pushed it, a serialized p4.v1.ForwardingPipelineConfig.
 * Nothing is received when no controller did. Any thread. */
void _pi_pipeline_given(pi_dev_id_t dev_id, pi_bytes_receiver_t receiver, void* cookie);

/* Counts are about to be read: the forwarding plane tells those of now first, if it can do so
 * quickly. Waits, so call it without the target's lock. */
void _pi_counts_wanted(pi_dev_id_t dev_id);

/* The cells of a register as the forwarding plane has them now, one behind the other, each
 * big-endian in as many bytes as its width takes. Returns 0, and nothing is received, when the
 * forwarding plane does not tell: they are then as a controller has last written them. Waits, so
 * call it without the target's lock. */
int _pi_register_cells(pi_dev_id_t dev_id, pi_p4_id_t register_id, uint64_t first, uint32_t count,
                       pi_bytes_receiver_t receiver, void* cookie);

#define PI_LAST_HIT_UNKNOWN UINT64_MAX

/* For how long no packet has met entries of a table with idle time-outs, in nanoseconds; an entry
 * that none has met counts from the time at which it was programmed. PI_LAST_HIT_UNKNOWN: the
 * forwarding plane does not know the entry. Returns a canonical code of gRPC; when it is not 0,
 * nothing is told, `say` receives the reason for the controller, and UNIMPLEMENTED means that the
 * forwarding plane cannot tell of any entry of the table. Waits, so call it without the target's
 * lock, with some hundred entries. */
int _pi_last_hits(pi_dev_id_t dev_id, pi_p4_id_t table_id, const pi_entry_handle_t* handles,
                  size_t count, uint64_t* nanoseconds, pi_bytes_receiver_t say, void* cookie);

#ifdef __cplusplus
}
#endif
