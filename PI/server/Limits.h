// The limits of the server, which operators may change while it runs.
#pragma once

#include <chrono>
#include <cstddef>

namespace pi::server {

// Messages larger than these are refused. Writes and pipelines are the large ones.
constexpr size_t kMaxLargeMessageBytes = 64 << 20;
constexpr size_t kMaxMessageBytes = 4 << 20;

struct Limits {
  size_t connections = 1024;  // and never more than half of the descriptors
  size_t streams = 512;       // of controllers that have arbitrated
  size_t streamsOfRole = 256;
  size_t roles = 1024;  // remembered ones with a name
  std::chrono::milliseconds arbitrateWithin{10'000};
  size_t writes = 256;                           // at once: one runs, the others wait
  size_t reads = 512;                            // at once
  size_t otherCalls = 128;                       // at once: pipelines and capabilities
  std::chrono::milliseconds takeWithin{60'000};  // for a client to take an answer, or a Read's next
  std::chrono::milliseconds stalledAfter{1'000};  // then its call may give way to another
  size_t memoryBytes = size_t{512} << 20;         // of gRPC's buffers, and of requests being served
};

// Thread-safe. Connections, streams and calls beyond new limits stay.
Limits limits();
void limitsAre(const Limits& limits);

}  // namespace pi::server
