#include "forwarder/punt/PuntCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "forwarder/base/Words.h"
#include "forwarder/punt/Punter.h"

namespace Forwarder {
namespace {

constexpr size_t shortest = 14;  // bytes of an Ethernet header; the kernel accepts no less
constexpr size_t shortestMade = numberOffset + 8;
constexpr uint64_t mostRate = 10'000'000;
constexpr uint64_t mostCount = 1'000'000'000;

uint64_t numberFrom(const char* what, std::string_view text, uint64_t least, uint64_t most) {
  const auto number = decimalOrHexNumber(text);
  if (number && *number >= least && *number <= most) return *number;
  throw CommandError(
      fmt::format("punt: {} is a number from {} to {}, not '{}'", what, least, most, text));
}

uint32_t portId(std::string_view text) {
  return static_cast<uint32_t>(numberFrom("a port's id", text, 0, UINT32_MAX));
}

std::string bytesFromHex(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    uint8_t byte = 0;
    const std::string_view two = text.substr(i, 2);
    const auto [end, error] = std::from_chars(two.data(), two.data() + two.size(), byte, 16);
    if (two.size() != 2 || error != std::errc() || end != two.data() + 2) {
      throw CommandError(fmt::format(
          "punt: a packet is given as pairs of hexadecimal digits, or made with size=N; '{}' at "
          "digit {} is no such pair",
          two, i + 1));
    }
    bytes.push_back(static_cast<char>(byte));
  }
  if (bytes.size() < shortest || bytes.size() > FrameBatch::longest) {
    throw CommandError(fmt::format("punt: a packet has {} to {} bytes, not {}", shortest,
                                   FrameBatch::longest, bytes.size()));
  }
  return bytes;
}

// With an EtherType for experiments, room for the number, and then bytes that count up.
std::string numberedPacket(size_t size) {
  std::string packet("\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x88\xb5", numberOffset);
  for (size_t i = packet.size(); i < size; ++i) packet.push_back(static_cast<char>(i));
  return packet;
}

std::string stateText(const Punter& punter) {
  if (!punter.running()) {
    return "not punting; start with --punt, or ask for packets: punt 1 size=60\n";
  }
  return punter.placesText() + punter.counts().text();
}

}  // namespace

void applyPunt(PuntOptions& options, std::string_view words) {
  if (words.empty()) {
    options.mapped = true;
    return;
  }
  const auto [port, device] = splitAt(words, '=');
  if (device.empty()) throw CommandError(fmt::format("punt: '{}' is not PORT=DEVICE", words));
  options.ports[portId(port)] = device;
}

void applyPuntEtherType(PuntOptions& options, std::string_view text) {
  options.etherTypes.insert(static_cast<uint16_t>(numberFrom("an EtherType", text, 1, UINT16_MAX)));
}

void applyPuntField(PuntOptions& options, std::string_view text) {
  const auto [name, value] = splitAt(text, '=');
  const auto bytes = fieldValue(value);
  if (name.empty() || !bytes) {
    throw CommandError(
        fmt::format("punt: '{}' is not NAME=VALUE with a number or an address", text));
  }
  if (name == "ingress_port") {
    throw CommandError("punt: ingress_port is the port that a packet came from; it takes no value");
  }
  options.values.insert_or_assign(std::string(name), *bytes);
}

PuntRequest puntRequest(std::string_view words) {
  PuntRequest request{.port = portId(takeWord(words))};
  if (words.empty())
    throw CommandError("punt: which packet? punt PORT HEXBYTES, or punt PORT size=N");
  while (!words.empty()) {
    const std::string_view word = takeWord(words);
    const auto [name, value] = splitAt(word, '=');
    if (name == "size") {
      request.packet = numberedPacket(numberFrom("size", value, shortestMade, FrameBatch::longest));
      request.numbered = true;
    } else if (name == "rate") {
      request.rate = numberFrom("rate", value, 1, mostRate);
    } else if (name == "count" || !request.packet.empty()) {
      request.count = numberFrom("count", name == "count" ? value : word, 1, mostCount);
    } else {
      request.packet = bytesFromHex(word);
    }
  }
  if (request.packet.empty()) throw CommandError("punt: give the packet's bytes, or size=N");
  return request;
}

Answer runPuntCommand(Punter& punter, std::string_view words) {
  if (words.empty()) return {true, stateText(punter)};
  std::string_view rest = words;
  if (takeWord(rest) != "field") return punter.requestPackets(puntRequest(words));
  PuntOptions options = punter.options();
  applyPuntField(options, rest);
  punter.valuesIs(std::move(options.values));
  return {};
}

}  // namespace Forwarder
