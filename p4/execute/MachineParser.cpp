// The parser's instructions.
#include "p4/execute/CopyBytes.h"
#include "p4/execute/HeaderMoves.h"
#include "p4/execute/Machine.h"

namespace P4 {

bool Machine::fail(uint32_t error, Packet& packet) {
  packet.parserError = error;
  if (trace_) trace_->onParserError(error);
  return false;
}

bool Machine::extract(const HeaderPlace& place, uint32_t header, Packet& packet) {
  if (packet.size - packet.parsed < place.bytes) return fail(image_.errors.packetTooShort, packet);
  uint64_t* state = packet.state.get();
  copyBytes(bytesOf(state) + place.at, packet.data + packet.parsed, place.bytes);
  packet.parsed += place.bytes;
  validate(image_, header, place, state);
  return true;
}

bool Machine::extractStack(const Instruction& instruction, Packet& packet) {
  const bool ofUnions = instruction.code == Code::extractUnionStack;
  const StackPlace& stack =
      ofUnions ? image_.unionStacks[instruction.b] : image_.stacks[instruction.b];
  uint64_t& next = packet.state[stack.next];
  if (next >= stack.elements.size()) return fail(image_.errors.stackOutOfBounds, packet);
  uint32_t header = stack.elements[next];
  if (ofUnions) header = image_.unions[header][instruction.c];
  if (!extract(image_.headers[header], header, packet)) return false;
  ++next;
  return true;
}

bool Machine::extractVarbit(const Instruction& instruction, Packet& packet) {
  const uint64_t bits = packet.state[instruction.a];
  const auto target = static_cast<ParserOp::Kind>(instruction.c & 0xff);
  if (target == ParserOp::Kind::extract) return extractVarbitTo(instruction.b, bits, packet);
  const bool ofUnions = target == ParserOp::Kind::extractUnionStack;
  const StackPlace& stack =
      ofUnions ? image_.unionStacks[instruction.b] : image_.stacks[instruction.b];
  uint64_t& next = packet.state[stack.next];
  if (next >= stack.elements.size()) return fail(image_.errors.stackOutOfBounds, packet);
  uint32_t header = stack.elements[next];
  if (ofUnions) header = image_.unions[header][instruction.c >> 8];
  if (!extractVarbitTo(header, bits, packet)) return false;
  ++next;
  return true;
}

bool Machine::extractVarbitTo(uint32_t header, uint64_t bits, Packet& packet) {
  const HeaderPlace& place = image_.headers[header];
  if (bits % 8) return fail(image_.errors.parserInvalidArgument, packet);
  const uint64_t bytes = place.bytes + bits / 8;
  if (packet.size - packet.parsed < bytes) return fail(image_.errors.packetTooShort, packet);
  if (place.maxBytes && bytes > place.maxBytes) return fail(image_.errors.headerTooShort, packet);
  uint64_t* state = packet.state.get();
  const uint8_t* from = packet.data + packet.parsed;
  uint8_t* to = bytesOf(state) + place.at;
  // The fixed part lies as if the varbit field were empty.
  const auto varbit = static_cast<uint32_t>(bits);
  for (uint32_t bit = 0; bit < place.bytes * 8;) {
    const bool behind = bit >= place.varbitAt;
    const uint32_t end = behind ? place.bytes * 8 : place.varbitAt;
    const uint32_t take = std::min(56u, end - bit);
    storeBits(to, bit, take, loadBits(from, behind ? bit + varbit : bit, take));
    bit += take;
  }
  state[place.varbit] = uint64_t{packet.parsed * 8 + place.varbitAt} << 32 | varbit;
  packet.parsed += static_cast<uint32_t>(bytes);
  validate(image_, header, place, state);
  return true;
}

bool Machine::advance(uint64_t bits, Packet& packet) {
  if (bits % 8) return fail(image_.errors.parserInvalidArgument, packet);
  if (packet.size - packet.parsed < bits / 8) return fail(image_.errors.packetTooShort, packet);
  packet.parsed += static_cast<uint32_t>(bits / 8);
  return true;
}

bool Machine::lookAhead(const Instruction& instruction, Packet& packet) {
  const auto bits = static_cast<uint32_t>(instruction.c);
  const auto words = static_cast<uint32_t>(instruction.c >> 32);
  const uint64_t left = uint64_t{packet.size - packet.parsed} * 8;
  if (uint64_t{instruction.b} + bits > left) return fail(image_.errors.packetTooShort, packet);
  uint32_t end = instruction.b + bits;
  for (uint32_t word = 0; word < words; ++word) {
    const uint32_t take = std::min(64u, end - instruction.b);
    end -= take;
    packet.state[instruction.a + word] = loadBits(packet.data + packet.parsed, end, take);
  }
  return true;
}

uint32_t Machine::select(const Selector& selector, uint64_t key) const {
  for (const Selector::Case& one : selector.cases)
    if ((key & one.mask) == one.value) return one.target;
  return selector.otherwise;
}

uint32_t Machine::selectWide(const WideSelector& selector, const uint64_t* key) const {
  const uint64_t* value = selector.values.data();
  const uint64_t* mask = selector.masks.data();
  for (const uint32_t target : selector.targets) {
    bool equal = true;
    for (uint32_t word = 0; word < selector.words; ++word)
      equal &= (key[word] & mask[word]) == value[word];
    if (equal) return target;
    value += selector.words;
    mask += selector.words;
  }
  return selector.otherwise;
}

bool Machine::inValueSet(uint64_t use, const uint64_t* key) const {
  const std::vector<uint64_t>& mask = image_.masks[use];
  for (const std::vector<uint64_t>& member : side_->valueSets[use]) {
    bool equal = true;
    for (size_t word = 0; word < mask.size(); ++word)
      equal &= ((key[word] ^ member[word]) & mask[word]) == 0;
    if (equal) return true;
  }
  return false;
}

}  // namespace P4
