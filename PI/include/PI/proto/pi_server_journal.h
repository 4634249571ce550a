/* A journal of the calls that write, with their bytes as they came and their outcomes. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  PI_GRPC_SERVER_JOURNAL_WRITE = 0,   /* a p4.v1.WriteRequest whose turn has come */
  PI_GRPC_SERVER_JOURNAL_PUSH = 1,    /* a p4.v1.SetForwardingPipelineConfigRequest */
  PI_GRPC_SERVER_JOURNAL_PIPELINE = 2 /* the same, of the process that runs the server */
} PIGrpcServerJournalKind_t;

typedef struct {
  const char* data;
  size_t size;
} PIGrpcServerBytes_t;

typedef struct {
  PIGrpcServerJournalKind_t kind;
  const char* identity;              /* of the client; empty where it is not known */
  const char* address;               /* as gRPC writes it */
  const PIGrpcServerBytes_t* pieces; /* of the serialized request, in order */
  size_t piece_count;
} PIGrpcServerJournalRequest_t;

typedef struct {
  uint32_t index; /* of the update */
  int code;       /* of gRPC */
  PIGrpcServerBytes_t message;
} PIGrpcServerJournalFailure_t;

typedef struct {
  int code; /* of gRPC; 0: all was done */
  const char* message;
  const PIGrpcServerJournalFailure_t* failures; /* none with a code: refused as a whole */
  size_t failure_count;
} PIGrpcServerJournalOutcome_t;

/* Called by threads of the server, several at once; must not wait for a disk. Writes of one device
 * come in the order in which they take effect. A push comes before it is verified, and takes effect
 * with the request of kind PIPELINE that comes before its end; Writes wait from there on until it
 * runs. What `begin` returns is given to `end`, once.
 */
typedef struct {
  void* (*begin)(const PIGrpcServerJournalRequest_t* request);
  void (*end)(void* call, const PIGrpcServerJournalOutcome_t* outcome);
} PIGrpcServerJournal_t;

/* NULL: none. At once; calls that have begun end in the journal in which they began, which stays
 * valid as long as the process lives. */
void PIGrpcServerJournalIs(const PIGrpcServerJournal_t* journal);

#ifdef __cplusplus
}
#endif
