#include "forwarder/packets/PacketCommand.h"

#include <fmt/format.h>

#include "forwarder/base/Words.h"
#include "forwarder/packets/ProgramText.h"

namespace Forwarder {
namespace {

constexpr uint64_t mostSeconds = 3600;

uint32_t portOf(std::string_view word, const char* command) {
  const auto number = decimalOrHexNumber(word);
  if (!number || *number > UINT32_MAX) {
    throw CommandError(fmt::format("{}: a port is a number, not '{}'", command, word));
  }
  return static_cast<uint32_t>(*number);
}

std::optional<uint32_t> maybePort(std::string_view& words, const char* command) {
  if (words.empty()) return std::nullopt;
  return portOf(takeWord(words), command);
}

void mustEnd(std::string_view words, const char* command) {
  if (words.empty()) return;
  throw CommandError(fmt::format("{}: '{}' is too much; try: help", command, words));
}

std::string portText(const PortReport& report) {
  const PortCounts& counts = report.counts;
  std::string text =
      fmt::format("port {} on {} {}{} received {} bytes {} sent {} bytes {}", report.port,
                  report.device, report.up ? "up" : "down", report.cpu ? " cpu" : "",
                  counts.received, counts.receivedBytes, counts.sent, counts.sentBytes);
  for (size_t i = 0; i < packetDrops; ++i) {
    if (counts.dropped[i] == 0) continue;
    text += fmt::format(" {} {}", packetDropName(static_cast<PacketDrop>(i)), counts.dropped[i]);
  }
  if (!report.pcap.empty()) text += " pcap " + report.pcap;
  if (!report.trouble.empty()) text += " (" + report.trouble + ")";
  return text + '\n';
}

std::string switchText(const P4::SwitchCounts& counts) {
  std::string text;
  const auto add = [&](const std::string& name, uint64_t count) {
    if (count > 0) text += fmt::format("{} {}\n", name, count);
  };
  add("parser-errors", counts.parserErrors);
  add("checksum-errors", counts.checksumErrors);
  add("cloned", counts.cloned);
  add("multicast", counts.multicast);
  add("resubmitted", counts.resubmitted);
  add("recirculated", counts.recirculated);
  for (size_t i = 0; i < P4::dropReasons; ++i) {
    add(P4::dropReasonName(static_cast<P4::DropReason>(i)), counts.dropped[i]);
  }
  return text;
}

TraceRequest traceRequest(uint64_t packets, std::string_view words) {
  TraceRequest request{.packets = packets};
  if (packets == 0 || packets > TraceBook::maxPackets) {
    throw CommandError(
        fmt::format("trace: a trace has 1 to {} packets, not {}", TraceBook::maxPackets, packets));
  }
  if (!words.empty() && !words.starts_with("for ")) request.port = maybePort(words, "trace");
  if (words.empty()) return request;
  takeWord(words);
  const auto seconds = decimalNumber(takeWord(words));
  mustEnd(words, "trace");
  if (!seconds || *seconds == 0 || *seconds > mostSeconds) {
    throw CommandError(fmt::format(
        "trace: how long to wait? give seconds from 1 to {}: trace N [PORT] for SECONDS",
        mostSeconds));
  }
  request.limit = std::chrono::seconds(*seconds);
  return request;
}

Answer traced(PacketThread& packets, const TraceRequest& request) {
  Answer answer;
  answer.later = [text = packets.requestTrace(request)]() -> std::optional<Answer> {
    std::optional<std::string> ready = text();
    if (!ready) return std::nullopt;
    return Answer{true, std::move(*ready), {}};
  };
  return answer;
}

Answer keptTrace(PacketThread& packets) {
  std::string text = packets.takeTrace();
  if (!text.empty()) return {true, std::move(text), {}};
  return {true,
          packets.tracing() ? "no packet has come since the last time\n"
                            : "tracing is off; try: trace 1, or: trace on\n",
          {}};
}

}  // namespace

Answer runPortsCommand(const PacketThread& packets, std::string_view words) {
  mustEnd(words, "ports");
  std::string text;
  for (const PortReport& report : packets.ports()) text += portText(report);
  if (const uint64_t lost = packets.toNoPort()) text += fmt::format("to-no-port {}\n", lost);
  return {true, text + switchText(packets.switchCounts()), {}};
}

Answer runTraceCommand(PacketThread& packets, std::string_view words) {
  if (words.empty()) return keptTrace(packets);
  const std::string_view first = takeWord(words);
  if (first == "on") {
    const auto port = maybePort(words, "trace");
    mustEnd(words, "trace");
    packets.traceIs(true, port);
    return {};
  }
  if (first == "off") {
    mustEnd(words, "trace");
    packets.traceIs(false);
    return {};
  }
  const auto number = decimalNumber(first);
  if (!number) {
    throw CommandError(
        fmt::format("trace: 'on', 'off' or a number of packets is wanted, not '{}'", first));
  }
  return traced(packets, traceRequest(*number, words));
}

Answer runPcapCommand(PacketThread& packets, std::string_view words) {
  const std::string_view port = takeWord(words);
  const std::string_view file = takeWord(words);
  if (port.empty() || file.empty()) {
    throw CommandError(
        "pcap: which port, and which file? pcap PORT FILE [in|out], or: pcap PORT off");
  }
  PcapWay way = PcapWay::both;
  if (!words.empty()) {
    if (words != "in" && words != "out") mustEnd(words, "pcap");
    way = words == "in" ? PcapWay::in : PcapWay::out;
  }
  packets.pcapIs(portOf(port, "pcap"), way, file == "off" ? "" : std::string(file));
  return {};
}

Answer runProgramCommand(const EngineSlot& engines, std::string_view words) {
  const auto engine = engines.engine();
  if (!engine) throw CommandError("program: there is no program yet; push one");
  if (words.empty()) return {true, programText(*engine), {}};
  return {true, programTableText(*engine, words), {}};
}

}  // namespace Forwarder
