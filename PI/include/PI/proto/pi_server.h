/* The P4Runtime gRPC server. One runs in a process at a time. All functions may be called from any
 * thread; none throws, or aborts on an argument. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* As gRPC numbers them. */
typedef enum {
  PI_GRPC_SERVER_CLIENT_CERTIFICATE_NOT_REQUESTED = 0,
  PI_GRPC_SERVER_CLIENT_CERTIFICATE_REQUESTED_NOT_VERIFIED = 1,
  PI_GRPC_SERVER_CLIENT_CERTIFICATE_REQUESTED_VERIFIED = 2,
  PI_GRPC_SERVER_CLIENT_CERTIFICATE_REQUIRED_NOT_VERIFIED = 3,
  PI_GRPC_SERVER_CLIENT_CERTIFICATE_REQUIRED_VERIFIED = 4
} PIGrpcServerSSLClientAuth_t;

/* Texts in PEM; pem_root_certs, against which clients are verified, may be NULL. */
typedef struct {
  const char* pem_root_certs;
  const char* pem_private_key;
  const char* pem_cert_chain;
  PIGrpcServerSSLClientAuth_t client_auth;
} PIGrpcServerSSLOptions_t;

/* Starts to listen on "address:port" (port 0: any free one) and returns: 0, or -1 when it cannot,
 * and PIGrpcServerLastError() says why. */
int PIGrpcServerRunAddr(const char* server_address);
int PIGrpcServerRunAddrSSL(const char* server_address, const PIGrpcServerSSLOptions_t* options);
/* Why the last start failed, in one line; empty when it did not. Lasts until the thread calls this
 * function again. */
const char* PIGrpcServerLastError(void);
/* 0 when the server runs, -1 when its last start failed; else waits for the start that another
 * thread is about to make: 0 when it succeeds, -1 when it fails or the time is up. */
int PIGrpcServerWaitStarted(int timeout_seconds);

/* Returns once the server has been shut down and its last call has returned; at once when none
 * runs. */
void PIGrpcServerWait(void);
/* Takes no new calls, cancels streams after a short grace, and lets other calls finish. A call that
 * takes longer than 10 seconds is left behind (PIGrpcServerWait() still waits for it), so that this
 * returns even to a caller that holds the lock for which such a call waits. */
void PIGrpcServerShutdown(void);
/* The same, but cancels all calls after the deadline, and leaves calls behind that go on all the
 * same. */
void PIGrpcServerForceShutdown(int deadline_seconds);
/* Call it after PIGrpcServerWait(): lets devices and server go. Election ids already seen stay
 * known as long as the process lives, and longer where they are kept, see below. */
void PIGrpcServerCleanup(void);

/* What the server takes on before it says RESOURCE_EXHAUSTED. */
typedef struct {
  uint32_t connections;            /* and never more than half of the process's descriptors */
  uint32_t streams;                /* of controllers that have arbitrated */
  uint32_t streams_of_role;        /* of them in one role of one device */
  uint32_t roles;                  /* with a name, that are remembered */
  uint32_t arbitration_timeout_ms; /* for a new stream to name its role */
  uint32_t writes;                 /* at once: one runs, the others wait for it */
  uint32_t reads;                  /* at once */
  uint32_t memory_mib; /* of gRPC's buffers; a quarter of it for requests being served */
} PIGrpcServerLimits_t;
/* Those that hold unless others are set. */
void PIGrpcServerDefaultLimits(PIGrpcServerLimits_t* limits);
/* At once, also for a server that runs; objects beyond the limits stay. 0 counts as 1. */
void PIGrpcServerLimitsIs(const PIGrpcServerLimits_t* limits);

/* The highest election id of a role of a device: no controller below it becomes primary. It is to
 * outlive the process wherever entries do. */
typedef struct {
  uint64_t device_id;
  const char* role; /* of role_size bytes; none of them: the default role */
  size_t role_size;
  uint64_t high;
  uint64_t low;
} PIGrpcServerElectionId_t;
/* Before the first server starts, once for each one that was saved. */
void PIGrpcServerElectionIdIs(const PIGrpcServerElectionId_t* election_id);
/* Both are called by threads of the server, one call at a time, and may wait. */
typedef struct {
  /* Whenever one rises, before the controller that raised it becomes primary. What cannot be saved
   * holds nevertheless, as long as the process lives. */
  void (*save)(const PIGrpcServerElectionId_t* election_id, void* cookie);
  /* A role in which nobody is made room for another one; `high` and `low` are 0. */
  void (*forget)(const PIGrpcServerElectionId_t* election_id, void* cookie);
} PIGrpcServerElectionIdKeeper_t;
/* Before the first server starts. */
void PIGrpcServerElectionIdKeeperIs(const PIGrpcServerElectionIdKeeper_t* keeper, void* cookie);

/* Forgets the highest ids of roles without a primary, so that any id can become primary there.
 * Returns the number of these roles. Waits for the keeper. */
size_t PIGrpcServerForgetElectionIds(void);

/* Where it listens; 0 when no server runs. */
int PIGrpcServerGetPort(void);
/* Connections that the running server closed at once: beyond the limit, or for want of descriptors.
 */
uint64_t PIGrpcServerGetRefusedConnections(void);
/* Packets sent to, and taken from, controllers of the device since the process began. */
uint64_t PIGrpcServerGetPacketInCount(uint64_t device_id);
uint64_t PIGrpcServerGetPacketOutCount(uint64_t device_id);

/* The same, and the dropped packets by reason. Packets in: punted by the target for controllers;
 * out: sent by controllers to the target. */
typedef struct {
  uint64_t in;               /* handed to a controller's stream, one a role that has a primary */
  uint64_t in_no_primary;    /* no controller is primary */
  uint64_t in_slow;          /* that primary's queue is full: it does not read fast enough */
  uint64_t in_malformed;     /* no packet_in header as the pipeline declares it */
  uint64_t out;              /* taken by the target */
  uint64_t out_not_primary;  /* sent by a backup */
  uint64_t out_bad_metadata; /* refused by the server: not as the pipeline declares packet_out */
  uint64_t out_refused;      /* by the target: its queue is full, or it cannot use the header */
} PIGrpcServerPacketCounts_t;
void PIGrpcServerGetPacketCounts(uint64_t device_id, PIGrpcServerPacketCounts_t* counts);
/* Why the last packet counted in in_malformed was, in words; empty when none was. Lasts until the
 * thread calls this function again. */
const char* PIGrpcServerLastMalformedPacketIn(uint64_t device_id);

/* The secret by which the process that runs the server installs its own pipeline: a
 * SetForwardingPipelineConfig whose gRPC metadata holds it under the key needs no arbitration. Each
 * start makes another one; empty before the first. The pointer stays valid. */
const char* PIGrpcServerLocalToken(void);
const char* PIGrpcServerLocalTokenKey(void);

#ifdef __cplusplus
}
#endif
