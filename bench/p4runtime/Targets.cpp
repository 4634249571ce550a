// See Targets.h.
#include "bench/p4runtime/Targets.h"

#include <fmt/format.h>

#include <fstream>
#include <stdexcept>

#include "bench/p4runtime/Samples.h"

namespace Bench {
namespace {

using namespace TestSupport;

constexpr const char* routeTable = "ipv4_route";

std::string preparedPipeline(Pipeline& pipeline, int64_t tableSize, const TempDir& directory) {
  pipeline.tableSizeIs(routeTable, tableSize);
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

MeasuredSwitch::MeasuredSwitch(const std::string& pipelineFile, int64_t tableSize)
    : pipeline_(pipelineFile),
      agent_({.stateDirectory = directory_.file("state"),
              .pipelineFile = preparedPipeline(pipeline_, tableSize, directory_),
              .batchTimeout = 60}),
      forwarder_(directory_.file("state")) {
  if (!agent_.startServing()) throw std::runtime_error("agent: " + agent_.output());
  forwarder_.start();
  if (!forwarder_.waitReady()) throw std::runtime_error("forwarder: " + forwarder_.output());
  connect();
}

void MeasuredSwitch::connect() {
  controller_ = std::make_unique<TestController>(agent_.address(), ++electionId_);
  if (!controller_->becomePrimary()) throw std::runtime_error("agent: " + agent_.output());
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

Memory MeasuredSwitch::memory() const {
  const pid_t pid = agent_.pid();
  return {.privateBytes = statusBytes(pid, "RssAnon"),
          .residentBytes = statusBytes(pid, "VmRSS"),
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
