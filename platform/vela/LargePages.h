// Large pages of memory for a process that keeps many small objects: with a million entries in
// small pages, to find an entry's page takes longer than to read the entry.
#pragma once

namespace Vela {

// Call first in main(). Starts the program once more, as the same process, with the setting by
// which the allocator asks for large pages; the C library reads it at the start alone. Returns when
// the program runs with it, or the user has set it either way, or it cannot be had.
void startWithLargePages(char* const* arguments);

}  // namespace Vela
