// Messages of the protobuf library, such as of strings that are not UTF-8: they go to the
// traces, and a few lines of it to standard error.
#pragma once

namespace P4Runtime {

// From here on, for the whole process. Call before other threads parse messages.
void takeProtobufLog();

}  // namespace P4Runtime
