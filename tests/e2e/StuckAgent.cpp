// An agent's library that never comes back to whoever calls it.
#include <unistd.h>

#include <cstdio>

extern "C" void korvelAgentRegisterTypes() {
  std::fprintf(stderr, "stuck\n");
  for (;;) pause();
}

extern "C" void korvelAgentStart(const char*, const void*) {}
