// The memory of this test program.
#pragma once

namespace Memory {

// Of this thread: from now on every `new` fails.
extern thread_local bool isUsedUp;

}  // namespace Memory
