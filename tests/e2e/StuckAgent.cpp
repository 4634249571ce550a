// An agent's library that never returns to its caller.
#include <unistd.h>

#include <cstdio>

extern "C" void korvelAgentRegisterTypes() {
  std::fprintf(stderr, "stuck\n");
  for (;;) pause();
}

extern "C" void korvelAgentStart(const char*, const void*) {}
