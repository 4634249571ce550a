#include "tests/PI/frontend/support/Memory.h"

#include <cstdlib>
#include <new>

thread_local bool Memory::isUsedUp = false;

void* operator new(size_t size) {
  void* const memory = Memory::isUsedUp ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
