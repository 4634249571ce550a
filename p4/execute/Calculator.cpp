#include "p4/execute/Calculator.h"

#include <algorithm>

#include "p4/execute/BitWriter.h"
#include "p4/execute/CopyBytes.h"
#include "p4/externs/InternetSum.h"

namespace P4 {
namespace {

std::span<const uint8_t> payloadOf(const Packet& packet) {
  return {packet.data + packet.parsed, std::min(packet.size - packet.parsed, packet.truncateTo)};
}

}  // namespace

Calculator::Calculator(const Image& image, ExternState& externs)
    : image_(image), externs_(externs) {
  for (const CalculationCode& code : image.calculations) {
    size_t bits = 0;
    uint32_t varbits = 0;
    for (const CalculationPart& part : code.parts) {
      bits += part.bits;
      varbits += part.kind == CalculationPart::Kind::varbit;
    }
    fixedBytes_ = std::max(fixedBytes_, bits / 8 + 16);
    varbits_ = std::max(varbits_, varbits);
  }
}

size_t Calculator::mostBytes(const Packet& packet) const {
  return fixedBytes_ + size_t{packet.size} * (varbits_ + 1);
}

void Calculator::gather(const CalculationPart& part, const Packet& packet, BitWriter& to) {
  const uint64_t* state = packet.state.get();
  if (part.valid != noSlot && !state[part.valid]) return;
  switch (part.kind) {
    case CalculationPart::Kind::header:
      return to.append(bytesOf(state) + image_.headers[part.header].at, part.bit, part.bits);
    case CalculationPart::Kind::varbit: {
      const uint64_t varbit = state[image_.headers[part.header].varbit];
      return to.append(packet.data, static_cast<uint32_t>(varbit >> 32),
                       static_cast<uint32_t>(varbit));
    }
    case CalculationPart::Kind::constant:
      return to.append(reinterpret_cast<const uint8_t*>(part.bytes.data()),
                       static_cast<uint32_t>(part.bytes.size() * 8) - part.bits, part.bits);
    case CalculationPart::Kind::value:
      break;
  }
  uint64_t words[64];
  loadWords(part.place, state, words);
  for (uint32_t word = part.place.words(); word-- > 0;) {
    const uint32_t bits = word + 1 == part.place.words() ? part.bits - 64 * word : 64;
    to.append(words[word], bits);
  }
}

size_t Calculator::gatherBytes(const CalculationCode& code, const uint64_t* state) {
  uint8_t* to = input_.data();
  for (const CalculationPart& part : code.parts) {
    if (part.valid != noSlot && !state[part.valid]) continue;
    copyBytes(to, bytesOf(state) + image_.headers[part.header].at + part.bit / 8, part.bits / 8);
    to += part.bits / 8;
  }
  return static_cast<size_t>(to - input_.data());
}

size_t Calculator::gatherBits(const CalculationCode& code, const Packet& packet) {
  BitWriter writer(input_.data());
  for (const CalculationPart& part : code.parts) gather(part, packet, writer);
  return writer.bytes();
}

uint64_t Calculator::sum(const CalculationCode& code, const Packet& packet) const {
  const uint64_t* state = packet.state.get();
  InternetSum sum;
  for (const CalculationPart& part : code.parts) {
    if (part.valid != noSlot && !state[part.valid]) continue;
    sum.add({bytesOf(state) + image_.headers[part.header].at + part.bit / 8, part.bits / 8});
  }
  if (code.payload) sum.add(payloadOf(packet));
  return sum.checksum();
}

uint64_t Calculator::calculate(uint32_t calculation, const Packet& packet) {
  const CalculationCode& code = image_.calculations[calculation];
  if (code.isSum) return sum(code, packet);
  if (input_.size() < mostBytes(packet)) input_.resize(mostBytes(packet) + 2048);
  size_t size = code.ofBytes ? gatherBytes(code, packet.state.get()) : gatherBits(code, packet);
  if (code.payload) {
    const std::span<const uint8_t> payload = payloadOf(packet);
    std::memcpy(input_.data() + size, payload.data(), payload.size());
    size += payload.size();
  }
  return externs_.hashes[calculation].hash(code.algorithm, {input_.data(), size});
}

}  // namespace P4
