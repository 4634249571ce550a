#include "forwarder/PuntCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "forwarder/Punter.h"

namespace Forwarder {
namespace {

constexpr size_t shortest = 14;  // an Ethernet header; the kernel takes no less
constexpr size_t shortestMade = numberOffset + 8;
constexpr uint64_t mostRate = 10'000'000;
constexpr uint64_t mostCount = 1'000'000'000;

uint64_t number(const std::string& what, std::string_view text, uint64_t least, uint64_t most) {
  const bool hex = text.starts_with("0x");
  const std::string_view digits = hex ? text.substr(2) : text;
  uint64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
  const bool whole = error == std::errc() && end == digits.data() + digits.size();
  if (whole && value >= least && value <= most) return value;
  throw RuleError(
      fmt::format("punt: {} is a number from {} to {}, not '{}'", what, least, most, text));
}

uint32_t portId(std::string_view text) {
  return static_cast<uint32_t>(number("a port's id", text, 0, UINT32_MAX));
}

std::string_view wordTaken(std::string_view& words) {
  const size_t end = std::min(words.find(' '), words.size());
  const std::string_view word = words.substr(0, end);
  words.remove_prefix(end);
  words.remove_prefix(std::min(words.find_first_not_of(' '), words.size()));
  return word;
}

std::pair<std::string_view, std::string_view> split(std::string_view text) {
  const size_t equals = std::min(text.find('='), text.size());
  return {text.substr(0, equals), text.substr(std::min(equals + 1, text.size()))};
}

std::string bytesFromHex(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    uint8_t byte = 0;
    const std::string_view two = text.substr(i, 2);
    const auto [end, error] = std::from_chars(two.data(), two.data() + two.size(), byte, 16);
    if (two.size() != 2 || error != std::errc() || end != two.data() + 2) {
      throw RuleError(fmt::format(
          "punt: a packet is given as pairs of hexadecimal digits, or made with size=N; '{}' at "
          "digit {} is no such pair",
          two, i + 1));
    }
    bytes.push_back(static_cast<char>(byte));
  }
  if (bytes.size() < shortest || bytes.size() > FrameBatch::longest) {
    throw RuleError(fmt::format("punt: a packet has {} to {} bytes, not {}", shortest,
                                FrameBatch::longest, bytes.size()));
  }
  return bytes;
}

// Of an EtherType for experiments; after the number come bytes that count up.
std::string madePacket(size_t size) {
  std::string packet("\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x88\xb5", numberOffset);
  for (size_t i = packet.size(); i < size; ++i) packet.push_back(static_cast<char>(i));
  return packet;
}

std::string stateText(const Punter& punter) {
  if (!punter.started())
    return "not punting; start with --punt, or ask for packets: punt 1 size=60\n";
  return punter.placesText() + punter.counts().text();
}

}  // namespace

void applyPunt(PuntOptions& options, std::string_view words) {
  if (words.empty()) {
    options.mapped = true;
    return;
  }
  const auto [port, device] = split(words);
  if (device.empty()) throw RuleError(fmt::format("punt: '{}' is not PORT=DEVICE", words));
  options.ports[portId(port)] = device;
}

void applyPuntEtherType(PuntOptions& options, std::string_view text) {
  options.etherTypes.insert(static_cast<uint16_t>(number("an EtherType", text, 1, UINT16_MAX)));
}

void applyPuntField(PuntOptions& options, std::string_view text) {
  const auto [name, value] = split(text);
  const auto bytes = fieldValue(value);
  if (name.empty() || !bytes) {
    throw RuleError(fmt::format("punt: '{}' is not NAME=VALUE with a number or an address", text));
  }
  if (name == "ingress_port") {
    throw RuleError("punt: ingress_port is the port that a packet came from; it takes no value");
  }
  options.values.insert_or_assign(std::string(name), *bytes);
}

PuntRequest puntRequest(std::string_view words) {
  PuntRequest request{.port = portId(wordTaken(words))};
  if (words.empty()) throw RuleError("punt: which packet? punt PORT HEXBYTES, or punt PORT size=N");
  while (!words.empty()) {
    const std::string_view word = wordTaken(words);
    const auto [name, value] = split(word);
    if (name == "size") {
      request.packet = madePacket(number("size", value, shortestMade, FrameBatch::longest));
      request.numbered = true;
    } else if (name == "rate") {
      request.rate = number("rate", value, 1, mostRate);
    } else if (name == "count" || !request.packet.empty()) {
      request.count = number("count", name == "count" ? value : word, 1, mostCount);
    } else {
      request.packet = bytesFromHex(word);
    }
  }
  if (request.packet.empty()) throw RuleError("punt: give the packet's bytes, or size=N");
  return request;
}

Answer puntAnswered(Punter& punter, std::string_view words) {
  try {
    if (words.empty()) return {true, stateText(punter)};
    std::string_view rest = words;
    if (wordTaken(rest) != "field") return punter.requestIs(puntRequest(words));
    PuntOptions options = punter.options();
    applyPuntField(options, rest);
    punter.valuesIs(std::move(options.values));
    return {};
  } catch (const RuleError& e) {
    return {false, e.what()};
  }
}

}  // namespace Forwarder
