/* An account of the calls that change something, or were refused. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Texts are the clients' own in part: of any bytes, but without zeros. */
typedef struct {
  const char*
      what; /* "Write", "push", "arbitration", or another thing that was refused; a literal */
  const char* identity; /* of the client; empty where it is not known */
  const char* address;  /* as gRPC writes it */
  uint64_t device_id;
  const char* role;
  const char* detail; /* "3 updates" */
  int code;           /* of gRPC */
  int is_refused;     /* the caller may not do this, or there is no room for him */
  const char* message;
  uint64_t duration_us;
} PIGrpcServerAccount_t;

/* Called by threads of the server, several at once; must not wait. NULL: by nobody. Set it before
 * the first server starts. */
void PIGrpcServerAccountantIs(void (*account)(const PIGrpcServerAccount_t* account, void* cookie),
                              void* cookie);

#ifdef __cplusplus
}
#endif
