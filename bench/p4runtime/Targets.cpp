// See Targets.h.
#include "bench/p4runtime/Targets.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "bench/p4runtime/Samples.h"

namespace Bench {
namespace {

using namespace TestSupport;

constexpr const char* routeTable = "ipv4_route";
constexpr const char* wcmpTable = "wcmp";
constexpr const char* wcmpProfile = "wcmp_selector";
constexpr const char* exactTable = "exact";

// Keys far from each other, in no order: an odd factor makes each 32-bit number another one, and
// the factor's inverse makes it that number again.
constexpr uint32_t keyFactor = 2654435761;
constexpr uint32_t inverseOf(uint32_t factor) {
  uint32_t inverse = factor;
  for (int i = 0; i < 5; ++i) inverse *= 2 - factor * inverse;
  return inverse;
}
static_assert(keyFactor * inverseOf(keyFactor) == 1);

std::string preparedPipeline(Pipeline& pipeline, const Sizes& sizes, const TempDir& directory) {
  if (sizes.routes) pipeline.tableSizeIs(routeTable, sizes.routes);
  if (sizes.references) pipeline.tableSizeIs(wcmpTable, sizes.references);
  if (sizes.exact) pipeline.tableSizeIs(exactTable, sizes.exact);
  if (sizes.members) pipeline.profileSizeIs(wcmpProfile, sizes.members);
  const std::string path = directory.file("pipeline.pb.bin");
  pipeline.written(path);
  return path;
}

// A field of /proc/PID/status, given in kB there.
size_t statusBytes(pid_t pid, const std::string& field) {
  std::ifstream file(fmt::format("/proc/{}/status", pid));
  for (std::string word; file >> word;) {
    size_t kilobytes = 0;
    if (word == field + ":" && file >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}

}  // namespace

Memory grownSince(const Memory& before, const Memory& now) {
  const auto growth = [](size_t from, size_t to) { return to - std::min(from, to); };
  return {.privateBytes = growth(before.privateBytes, now.privateBytes),
          .forwarderBytes = growth(before.forwarderBytes, now.forwarderBytes),
          .stateBytes = growth(before.stateBytes, now.stateBytes)};
}

MeasuredSwitch::MeasuredSwitch(const std::string& pipelineFile, const Sizes& sizes)
    : pipeline_(pipelineFile),
      agent_({.stateDirectory = directory_.file("state"),
              .pipelineFile = preparedPipeline(pipeline_, sizes, directory_),
              .batchTimeout = 60}),
      forwarder_(directory_.file("state")) {
  if (!agent_.startServing()) throw std::runtime_error("agent: " + agent_.output());
  forwarder_.start();
  if (!forwarder_.waitAttached()) throw std::runtime_error("forwarder: " + forwarder_.output());
  connect();
}

void MeasuredSwitch::connect() {
  controller_ = std::make_unique<TestController>(agent_.address(), ++electionId_);
  if (!controller_->becomePrimary()) throw std::runtime_error("agent: " + agent_.output());
}

p4::v1::TableEntry MeasuredSwitch::exact(uint64_t i, uint64_t round) const {
  const uint64_t value = (i << 20 ^ round) * 0x9e3779b97f4a7c15;
  return EntryOf(pipeline_, exactTable)
      .exact("key", static_cast<uint32_t>(i) * keyFactor)
      .action("set", {{"value", value}});
}

uint64_t MeasuredSwitch::exactNumber(const p4::v1::TableEntry& entry) {
  uint32_t key = 0;
  if (entry.match_size() != 1) return UINT64_MAX;
  for (const char byte : entry.match(0).exact().value()) {
    key = key << 8 | static_cast<uint8_t>(byte);
  }
  return key * inverseOf(keyFactor);
}

p4::v1::TableEntry MeasuredSwitch::route(uint64_t i, uint32_t nexthop) const {
  return EntryOf(pipeline_, routeTable)
      .exact("vrf_id", 1)
      .lpm("ipv4_dst", i << 8, 24)
      .action("set_nexthop", {{"nexthop_id", nexthop}});
}

p4::v1::TableEntry MeasuredSwitch::allRoutes() const {
  p4::v1::TableEntry query;
  query.set_table_id(pipeline_.table(routeTable).preamble().id());
  return query;
}

p4::v1::ActionProfileMember MeasuredSwitch::member(uint64_t i) const {
  return memberOf(pipeline_, wcmpProfile, static_cast<uint32_t>(i + 1), "set_nexthop",
                  {{"nexthop_id", i}});
}

p4::v1::ActionProfileGroup MeasuredSwitch::group(uint64_t i, uint64_t firstMember,
                                                 uint64_t members) const {
  std::map<uint32_t, int> weights;
  for (uint64_t m = 0; m < members; ++m) weights[static_cast<uint32_t>(firstMember + m + 1)] = 1;
  return groupOf(pipeline_, wcmpProfile, static_cast<uint32_t>(i + 1), weights);
}

p4::v1::TableEntry MeasuredSwitch::toGroup(uint64_t i, uint64_t group) const {
  return EntryOf(pipeline_, wcmpTable).exact("wcmp_id", i).group(static_cast<uint32_t>(group + 1));
}

p4::v1::TableEntry MeasuredSwitch::oneShot(uint64_t i, uint64_t elements) const {
  EntryOf entry = EntryOf(pipeline_, wcmpTable).exact("wcmp_id", i).oneShot();
  for (uint64_t e = 0; e < elements; ++e) entry.oneOf("set_nexthop", {{"nexthop_id", i + e}}, 1);
  return entry;
}

Memory MeasuredSwitch::memory() {
  return {.privateBytes = statusBytes(agent_.pid(), "RssAnon"),
          .forwarderBytes = statusBytes(forwarder_.process().pid(), "RssAnon"),
          .stateBytes = allocatedBytes(agent_.options().stateDirectory)};
}

double MeasuredSwitch::restartSeconds() {
  controller_.reset();
  agent_.kill();
  const auto start = Clock::now();
  agent_.start();
  p4::v1::TableEntry query = route(0, 0);
  query.clear_action();
  if (!agent_.waitServing(query)) throw std::runtime_error("agent: " + agent_.output());
  const double seconds = Duration(Clock::now() - start).count() / 1e6;
  connect();
  return seconds;
}

CeilingProcess::CeilingProcess() {
  const std::string address = fmt::format("127.0.0.1:{}", freePort());
  const std::string output = directory_.file("output");
  process_ = std::make_unique<Process>(
      std::vector<std::string>{"/proc/self/exe", "--serve-ceiling", address}, output, output);
  controller_ = std::make_unique<TestController>(address, 1);
  const auto served = [&] { return controller_->write(std::vector<p4::v1::Update>{}).ok(); };
  if (!waitUntil(served, process_->descriptor())) {
    throw std::runtime_error("ceiling: " + fileText(output));
  }
}

}  // namespace Bench
