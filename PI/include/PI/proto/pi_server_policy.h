/* Who may do what on the P4Runtime gRPC server. Functions may be called from any thread. */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Puts a policy in force, at once, also for a server that runs: streams that may not have their
 * roles any more end. Calls under way go on under the former one. `text` of `size` bytes is its
 * JSON, NULL for no policy: everybody may do everything. 0, or -1 when it is broken: the former
 * policy stays, and PIGrpcServerPolicyError() says why. `file` is for messages. */
int PIGrpcServerPolicyIs(const char* text, size_t size, const char* file);
/* Why the thread's last PIGrpcServerPolicyIs() failed, in one line; lasts until the next. */
const char* PIGrpcServerPolicyError(void);

#ifdef __cplusplus
}
#endif
