// Validity of headers, and copies of headers, unions and stacks.
#pragma once

#include <cstring>

#include "p4/compile/Image.h"
#include "p4/execute/Packet.h"

namespace P4 {

// Fields keep their bytes, as programs that read a header just removed expect.
inline void invalidate(const HeaderPlace& header, uint64_t* state) {
  state[header.valid] = state[header.shown] = 0;
}

// Other members of its union become invalid. `place` is that of the header.
inline void validate(const Image& image, uint32_t header, const HeaderPlace& place,
                     uint64_t* state) {
  state[place.valid] = state[place.shown] = 1;
  if (place.headerUnion == absent) return;
  for (const uint32_t member : image.unions[place.headerUnion])
    if (member != header) invalidate(image.headers[member], state);
}

void addHeader(const Image& image, uint32_t header, bool fast, Packet& packet);
void removeHeader(const Image& image, uint32_t header, bool keepLength, Packet& packet);
void copyHeader(const Image& image, uint32_t to, uint32_t from, uint64_t* state);
bool headersEqual(const Image& image, uint32_t one, uint32_t other, const Packet& packet);
void pushStack(const Image& image, uint32_t stack, bool ofUnions, uint64_t count, uint64_t* state);
void popStack(const Image& image, uint32_t stack, bool ofUnions, uint64_t count, uint64_t* state);

}  // namespace P4
