// Creates and maps the trace file of this process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/scrivel/FileLayout.h"
#include "platform/scrivel/Trace.h"

namespace Scrivel {

// A mapping of a trace file. Never unmapped: another thread may be storing a record.
struct TraceFile {
  std::string path;
  FileHeader* header = nullptr;
  HandleEntry* handles = nullptr;
  uint32_t rings = 0;     // ours, so that nothing written into the file can lead us astray
  uint32_t ringSize = 0;  // a power of two
  uint32_t maxStringLength = 0;
  std::vector<RingHeader*> ring;

  SlotHeader* slot(uint32_t ringNumber, uint64_t ticket) const;
  size_t bytes() const { return fileBytes(rings, ringSize); }
};

// All memory is allocated here: on a full state directory this fails, and no later store can
// (a store into a hole of a full tmpfs would kill the process). The open descriptor holds a lock by
// which readers see that the process lives. Throws std::system_error.
TraceFile* createTraceFile(const Options& options);

}  // namespace Scrivel
