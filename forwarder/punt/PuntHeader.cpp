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

// Writes a big-endian value into the low `bits` of the bytes at `to`; false when it has more bits.
bool place(std::span<const uint8_t> value, uint32_t bits, char* to) {
  while (!value.empty() && value.front() == 0) value = value.subspan(1);
  const size_t size = (bits + 7) / 8;
  if (value.size() > size) return false;
  const uint32_t spare = static_cast<uint32_t>(size * 8) - bits;
  if (value.size() == size && spare > 0 && value.front() >> (8 - spare) != 0) return false;
  std::copy(value.begin(), value.end(), to + (size - value.size()));
  return true;
}

}  // namespace

PuntHeader::PuntHeader(std::string_view lines, const PuntValues& values) {
  while (!lines.empty()) {
    const auto [line, rest] = splitAt(lines, '\n');
    if (!line.empty()) fields_.push_back(fieldOf(line));
    lines = rest;
  }
  std::ranges::sort(fields_, {}, &Field::id);
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

void PuntHeader::doPlace(const PuntValues& values) {
  size_t size = 0;
  for (Field& field : fields_) {
    field.offset = size;
    size += field.size();
    if (size > FrameBatch::headroom) {
      throw CommandError(fmt::format(
          "packet_in takes more than {} bytes, too many for the forwarder", FrameBatch::headroom));
    }
  }
  bytes_.assign(size, '\0');
  for (const auto& [name, value] : values) {
    const Field* found = field(name);
    if (!found) {
      throw CommandError(fmt::format("packet_in has no field {}; it has: {}", name, text()));
    }
    if (!place(value, found->bits, bytes_.data() + found->offset)) {
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
    if (!place(value, found->bits, bytes.data() + found->offset)) return std::nullopt;
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
