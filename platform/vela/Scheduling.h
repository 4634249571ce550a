// Where the system runs the calling thread, and how soon after it was woken.
#pragma once

#include <chrono>
#include <cstdint>

namespace Vela {

// The number of the processor plus 1; 0: not known.
uint32_t currentProcessor();

// Goes on at another processor, if the thread may use several. For a thread that was woken beside
// one that it works for and that goes on: the system may leave both at one processor for
// milliseconds, though another one is idle.
void leaveProcessor();

// Lets the thread run soon after it was woken, for about that long at a time, rather than at the
// end of another thread's turn. 100 µs at the least. Systems that know of no such wish ignore it;
// threads with a policy of their own keep it.
void runInTurnsOf(std::chrono::microseconds turn);

}  // namespace Vela
