#include "forwarder/punt/PuntHeader.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "forwarder/base/Answer.h"
#include "forwarder/base/Words.h"
#include "forwarder/device/Frames.h"

namespace Forwarder {
namespace {

constexpr std::string_view portField = "ingress_port";

constexpr std::string_view packedMark = "packed";

// Writes a big-endian value into the `bits` bits from `firstBit` on; false when it has more bits.
bool place(std::span<const uint8_t> value, uint32_t bits, size_t firstBit, char* to) {
  for (size_t i = 0; i < value.size() * 8; ++i) {  // from the lowest bit on
    const bool isSet = value[value.size() - 1 - i / 8] >> (i % 8) & 1;
    if (i >= bits && isSet) return false;
    if (i >= bits) continue;
    const size_t at = firstBit + bits - 1 - i;
    const auto mask = static_cast<uint8_t>(0x80u >> (at % 8));
    auto& byte = reinterpret_cast<uint8_t&>(to[at / 8]);
    byte = static_cast<uint8_t>(isSet ? byte | mask : byte & ~mask);
  }
  return true;
}

}  // namespace

PuntHeader::PuntHeader(std::string_view lines, const PuntValues& values) {
  const bool isPacked = lines.starts_with(packedMark);
  if (isPacked) lines.remove_prefix(packedMark.size());
  while (!lines.empty()) {
    const auto [line, rest] = splitAt(lines, '\n');
    if (!line.empty()) fields_.push_back(fieldOf(line));
    lines = rest;
  }
  if (!isPacked) std::ranges::sort(fields_, {}, &Field::id);
  bytes_.assign(layOut(isPacked), '\0');
  doPlace(values);
}

PuntHeader::Field PuntHeader::fieldOf(std::string_view line) {
  const auto [idText, rest] = splitAt(line, ' ');
  const auto [name, bitsText] = splitAt(rest, ' ');
  const auto id = decimalNumber(idText);
  const auto bits = decimalNumber(bitsText);
  if (!id || *id > UINT32_MAX || name.empty() || !bits || *bits == 0 ||
      *bits > FrameBatch::headroom * 8) {
    throw CommandError(
        fmt::format("the agent describes a packet_in field as '{}', which is not "
                    "\"ID NAME BITWIDTH\"; is it of another version?",
                    line));
  }
  return {.id = static_cast<uint32_t>(*id),
          .name = std::string(name),
          .bits = static_cast<uint32_t>(*bits)};
}

// Returns the header's bytes.
size_t PuntHeader::layOut(bool isPacked) {
  size_t bits = 0;
  for (Field& field : fields_) {
    if (!isPacked) bits += (8 - field.bits % 8) % 8;  // before the value, in its first byte
    field.firstBit = bits;
    bits += field.bits;
    if (bits > FrameBatch::headroom * 8) {
      throw CommandError(fmt::format(
          "packet_in takes more than {} bytes, too many for the forwarder", FrameBatch::headroom));
    }
  }
  return (bits + 7) / 8;
}

void PuntHeader::doPlace(const PuntValues& values) {
  for (const auto& [name, value] : values) {
    const Field* found = field(name);
    if (!found) {
      throw CommandError(fmt::format("packet_in has no field {}; it has: {}", name, text()));
    }
    if (!place(value, found->bits, found->firstBit, bytes_.data())) {
      throw CommandError(
          fmt::format("the value for packet_in's {} has more than its {} bits", name, found->bits));
    }
  }
}

const PuntHeader::Field* PuntHeader::field(std::string_view name) const {
  const auto found = std::ranges::find(fields_, name, &Field::name);
  return found == fields_.end() ? nullptr : &*found;
}

std::optional<std::string> PuntHeader::bytes(uint32_t port) const {
  std::string bytes = bytes_;
  if (const Field* found = field(portField)) {
    uint8_t value[sizeof port];
    for (size_t i = sizeof value; i > 0; port >>= 8) value[--i] = static_cast<uint8_t>(port);
    if (!place(value, found->bits, found->firstBit, bytes.data())) return std::nullopt;
  }
  return bytes;
}

std::string PuntHeader::text() const {
  std::string text;
  for (const Field& field : fields_) {
    text += fmt::format("{}{}:{}", text.empty() ? "" : " ", field.name, field.bits);
  }
  return text.empty() ? "none" : text;
}

}  // namespace Forwarder
