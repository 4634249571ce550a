/* The controllers of the P4Runtime gRPC server, for people and for monitoring. Functions may be
 * called from any thread, with or without a running server. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A stream that has taken a role. Texts are the clients' own in part, and last for the call. */
typedef struct {
  const char* identity; /* of its certificate or Unix user; empty where it is not known */
  const char* address;  /* as gRPC writes it */
  uint64_t device_id;
  const char* role; /* of `role_size` bytes; empty: the default role */
  size_t role_size;
  int has_election_id;
  uint64_t election_id_high;
  uint64_t election_id_low;
  int is_primary;
  int64_t opened;  /* when the stream began, seconds since 1970 */
  int64_t primary; /* since when it is the primary, likewise; 0: it is none */
} PIGrpcServerController_t;

/* Tells up to `most` controllers, primaries first, and of these and of the others by device and
 * role. Returns how many there are. Holds no lock while `tell` runs. */
size_t PIGrpcServerControllers(size_t most,
                               void (*tell)(const PIGrpcServerController_t* controller,
                                            void* cookie),
                               void* cookie);

/* A role with streams, or one whose highest election id is remembered. */
typedef struct {
  uint64_t device_id;
  const char* role;
  size_t role_size;
  size_t streams;
  int has_primary;
} PIGrpcServerRole_t;

/* Tells up to `most` roles by device and name. Returns how many there are. */
size_t PIGrpcServerRoles(size_t most, void (*tell)(const PIGrpcServerRole_t* role, void* cookie),
                         void* cookie);

#ifdef __cplusplus
}
#endif
