#include "platform/scrivel/FileLayout.h"

namespace Scrivel {

size_t ringBytes(uint32_t ringSize) { return sizeof(RingHeader) + ringSize * slotSize; }

size_t ringOffset(uint32_t ringSize, uint32_t ring) {
  return sizeof(FileHeader) + maxHandles * sizeof(HandleEntry) + ring * ringBytes(ringSize);
}

size_t fileBytes(uint32_t rings, uint32_t ringSize) { return ringOffset(ringSize, rings); }

}  // namespace Scrivel
