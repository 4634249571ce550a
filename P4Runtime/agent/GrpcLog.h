// Messages of the gRPC library, such as of handshakes that fail: they go to the traces, and a few
// lines of it to standard error.
#pragma once

namespace P4Runtime {

// From here on, for the whole process. Call before the server starts.
void takeGrpcLog();

}  // namespace P4Runtime
