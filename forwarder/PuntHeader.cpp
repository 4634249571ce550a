#include "forwarder/PuntHeader.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <span>

#include "forwarder/PuntFrames.h"
#include "forwarder/Rules.h"

namespace Forwarder {
namespace {

constexpr std::string_view portField = "ingress_port";

std::string_view wordTaken(std::string_view& text, char separator) {
  const size_t end = std::min(text.find(separator), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return word;
}

bool read(std::string_view text, uint32_t* number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return error == std::errc() && end == text.data() + text.size();
}

// Writes a big-endian value into the low `bits` of `to`, whose size they fill; false when it has
// more of them.
bool placed(std::span<const uint8_t> value, uint32_t bits, char* to) {
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
    const std::string_view line = wordTaken(lines, '\n');
    if (line.empty()) continue;
    std::string_view rest = line;
    Field field;
    const bool hasId = read(wordTaken(rest, ' '), &field.id);
    field.name = wordTaken(rest, ' ');
    if (!hasId || field.name.empty() || !read(rest, &field.bits) || field.bits == 0 ||
        field.size() > FrameBatch::headroom) {
      throw RuleError(
          fmt::format("the agent describes a packet_in field as '{}', which is not "
                      "\"ID NAME BITWIDTH\"; is it of another version?",
                      line));
    }
    fields_.push_back(std::move(field));
  }
  std::ranges::sort(fields_, {}, &Field::id);
  doPlace(values);
}

void PuntHeader::doPlace(const PuntValues& values) {
  size_t size = 0;
  for (Field& field : fields_) {
    field.offset = size;
    size += field.size();
    if (size > FrameBatch::headroom) {
      throw RuleError(fmt::format("packet_in takes more than {} bytes, too many for the forwarder",
                                  FrameBatch::headroom));
    }
  }
  bytes_.assign(size, '\0');
  for (const auto& [name, value] : values) {
    const Field* found = field(name);
    if (!found) {
      throw RuleError(fmt::format("packet_in has no field {}; it has: {}", name, text()));
    }
    if (!placed(value, found->bits, bytes_.data() + found->offset)) {
      throw RuleError(
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
    if (!placed(value, found->bits, bytes.data() + found->offset)) return std::nullopt;
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
