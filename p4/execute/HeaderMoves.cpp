#include "p4/execute/HeaderMoves.h"

#include <algorithm>

namespace P4 {
namespace {

uint32_t varbitBits(const HeaderPlace& header, const uint64_t* state) {
  return header.varbit == noSlot ? 0 : static_cast<uint32_t>(state[header.varbit]);
}

// A header with all that belongs to it, whether valid or not.
void moveHeader(const HeaderPlace& to, const HeaderPlace& from, uint64_t* state) {
  state[to.valid] = state[from.valid];
  state[to.shown] = state[from.shown];
  std::memcpy(bytesOf(state) + to.at, bytesOf(state) + from.at, to.bytes);
  if (to.varbit != noSlot) state[to.varbit] = state[from.varbit];
}

// The headers of a stack's element: itself, or the members of a union.
template <typename Do>
void forHeaders(const Image& image, uint32_t element, bool ofUnions, Do act) {
  if (!ofUnions) return act(element, 0);
  for (size_t member = 0; member < image.unions[element].size(); ++member)
    act(image.unions[element][member], member);
}

void moveElement(const Image& image, uint32_t to, uint32_t from, bool ofUnions, uint64_t* state) {
  forHeaders(image, to, ofUnions, [&](uint32_t header, size_t member) {
    const uint32_t source = ofUnions ? image.unions[from][member] : from;
    moveHeader(image.headers[header], image.headers[source], state);
  });
}

void clearElement(const Image& image, uint32_t element, bool ofUnions, uint64_t* state) {
  forHeaders(image, element, ofUnions,
             [&](uint32_t header, size_t) { invalidate(image.headers[header], state); });
}

bool varbitsEqual(const HeaderPlace& one, const HeaderPlace& other, const Packet& packet) {
  if (one.varbit == noSlot) return true;
  const uint64_t left = packet.state[one.varbit];
  const uint64_t right = packet.state[other.varbit];
  const auto bits = static_cast<uint32_t>(left);
  if (bits != static_cast<uint32_t>(right)) return false;
  for (uint32_t at = 0; at < bits; at += 64) {
    const uint32_t take = std::min(64u, bits - at);
    if (loadBits(packet.data, static_cast<uint32_t>(left >> 32) + at, take) !=
        loadBits(packet.data, static_cast<uint32_t>(right >> 32) + at, take))
      return false;
  }
  return true;
}

}  // namespace

void addHeader(const Image& image, uint32_t header, bool fast, Packet& packet) {
  const HeaderPlace& place = image.headers[header];
  uint64_t* state = packet.state.get();
  if (!fast) {
    if (state[place.valid]) return;
    std::memset(bytesOf(state) + place.at, 0, place.bytes);
    if (place.varbit != noSlot) state[place.varbit] = 0;
    packet.runningLength += place.bytes;
  }
  validate(image, header, place, state);
}

void removeHeader(const Image& image, uint32_t header, bool keepLength, Packet& packet) {
  const HeaderPlace& place = image.headers[header];
  uint64_t* state = packet.state.get();
  if (!state[place.valid]) return;
  if (!keepLength) packet.runningLength -= place.bytes + varbitBits(place, state) / 8;
  invalidate(place, state);
}

void copyHeader(const Image& image, uint32_t to, uint32_t from, uint64_t* state) {
  if (to == from) return;
  const HeaderPlace& source = image.headers[from];
  const HeaderPlace& target = image.headers[to];
  if (!state[source.valid]) return invalidate(target, state);
  std::memcpy(bytesOf(state) + target.at, bytesOf(state) + source.at, target.bytes);
  if (target.varbit != noSlot) state[target.varbit] = state[source.varbit];
  validate(image, to, target, state);
}

bool headersEqual(const Image& image, uint32_t one, uint32_t other, const Packet& packet) {
  const HeaderPlace& left = image.headers[one];
  const HeaderPlace& right = image.headers[other];
  const uint64_t* state = packet.state.get();
  if (!state[left.valid] || !state[right.valid]) return false;
  return std::memcmp(bytesOf(state) + left.at, bytesOf(state) + right.at, left.bytes) == 0 &&
         varbitsEqual(left, right, packet);
}

void pushStack(const Image& image, uint32_t stack, bool ofUnions, uint64_t count, uint64_t* state) {
  const StackPlace& place = ofUnions ? image.unionStacks[stack] : image.stacks[stack];
  const auto size = place.elements.size();
  const auto moved = static_cast<size_t>(std::min<uint64_t>(count, size));
  if (moved == 0) return;
  for (size_t i = size; i-- > moved;)
    moveElement(image, place.elements[i], place.elements[i - moved], ofUnions, state);
  for (size_t i = 0; i < moved; ++i) clearElement(image, place.elements[i], ofUnions, state);
  state[place.next] = std::min<uint64_t>(size, state[place.next] + moved);
}

void popStack(const Image& image, uint32_t stack, bool ofUnions, uint64_t count, uint64_t* state) {
  const StackPlace& place = ofUnions ? image.unionStacks[stack] : image.stacks[stack];
  const auto size = place.elements.size();
  const auto moved = static_cast<size_t>(std::min<uint64_t>(count, size));
  if (moved == 0) return;
  for (size_t i = 0; i + moved < size; ++i)
    moveElement(image, place.elements[i], place.elements[i + moved], ofUnions, state);
  for (size_t i = size - moved; i < size; ++i)
    clearElement(image, place.elements[i], ofUnions, state);
  state[place.next] = state[place.next] > moved ? state[place.next] - moved : 0;
}

}  // namespace P4
