// See WiredSwitch.h.
#include "tests/e2e/WiredSwitch.h"

#include <fmt/format.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>

using namespace TestSupport;

namespace {

constexpr const char* cpuDevice = "p4controller";
constexpr const char* cpuPeer = "cpufar";

class OwnNetwork final : public testing::Environment {
  void SetUp() override {
    const std::string refusal = enteredNetworkNamespace();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
  }
};
const auto* const network = testing::AddGlobalTestEnvironment(new OwnNetwork);

Switch::Options optionsOf(const WiredSwitch::Wiring& wiring) {
  Switch::Options options{.forwarder = {"--punt"}, .pipelineChange = wiring.pipelineChange};
  if (wiring.forwards) options.forwarder = {"--forward", "--cpu-port", "510"};
  if (wiring.cpuTap) {
    options.agent = {"--create-cpu-device"};
  } else {
    options.forwarder.insert(options.forwarder.end(), {"--punt-device", cpuPeer});
  }
  for (uint32_t port = 1; port <= wiring.ports; ++port) {
    options.ports[port] = WiredSwitch::device(port);
  }
  return options;
}

}  // namespace

WiredSwitch::Link::Link(const std::string& near, const std::string& far,
                        PacketEndpoint::Handler atFarEnd)
    : pair(near, far),
      handler(std::move(atFarEnd)),
      farEnd(std::make_unique<PacketEndpoint>(far, handler)) {}

void WiredSwitch::Link::remade() {
  pair.remade();
  farEnd = std::make_unique<PacketEndpoint>(pair.peer(), handler);
}

std::string WiredSwitch::device(uint32_t link) { return fmt::format("link{}", link); }

WiredSwitch::WiredSwitch(const Wiring& wiring, AtFarEnd atFarEnd, AtController atController)
    : Switch(optionsOf(wiring)),
      ports_(wiring.ports),
      forwards_(wiring.forwards),
      atFarEnd_(std::move(atFarEnd)) {
  onPacketIn = std::move(atController);
  for (uint32_t link = 1; link <= wiring.ports + wiring.spareLinks; ++link) {
    links_.emplace_back(device(link), fmt::format("far{}", link),
                        [this, link](auto packet) { atFarEnd_(link, packet); });
  }
  if (!wiring.cpuTap) cpu_.emplace(cpuDevice, cpuPeer, nullptr);
}

bool WiredSwitch::start() {
  if (!Switch::start()) return false;
  return forwards_ || waitUntil([this] { return punts(); }, forwarder.process().descriptor());
}

// It finds the devices some time after it serves `ctl`, and notes faults in brackets.
bool WiredSwitch::punts() const {
  const std::string places = forwarder.ctl({"punt"}).output;
  bool all = places.find('(') == places.npos;
  for (uint32_t port = 1; port <= ports_; ++port) {
    all = all && places.find(fmt::format("port {} on ", port)) != places.npos;
  }
  return all;
}

std::map<std::string, uint64_t> WiredSwitch::counts() const {
  google::protobuf::Struct status;
  const CommandResult result = agent.korvel({"status", "--json"});
  if (!google::protobuf::util::JsonStringToMessage(result.output, &status).ok()) return {};
  std::map<std::string, uint64_t> counts;
  for (const auto& [name, value] : status.fields().at("packets").struct_value().fields()) {
    if (value.has_number_value()) counts[name] = static_cast<uint64_t>(value.number_value());
  }
  return counts;
}

uint64_t WiredSwitch::count(const std::string& name) const { return counts().at(name); }

std::string WiredSwitch::drops() const {
  std::string text;
  for (const auto& [name, count] : counts()) {
    const bool drop = name.find("Dropped") != name.npos || name.find("Refused") != name.npos;
    if (drop && count > 0) text += fmt::format("{} {}\n", name, count);
  }
  return text;
}

std::string punted(uint32_t port, const std::string& packet) {
  return paddedBytes(canonicalBytes(port), 32) + '\1' + packet;
}
