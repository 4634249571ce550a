// See Switch.h.
#include "tests/e2e/Switch.h"

#include <fmt/format.h>

#include <iostream>

using namespace TestSupport;

namespace {

Pipeline pipelineFor(const Switch::Options& options, const TempDir& directory) {
  Pipeline pipeline =
      options.pipelineFile.empty() ? Router::pipeline() : Pipeline(options.pipelineFile);
  if (options.routeTableSize) pipeline.tableSizeIs(Router::routeTable, options.routeTableSize);
  pipeline.request().set_device_id(options.deviceId);
  if (options.pipelineChange) options.pipelineChange(pipeline);
  pipeline.written(directory.file("pipeline.pb.bin"));
  return pipeline;
}

AgentOptions agentOptions(const Switch::Options& options, const TempDir& directory) {
  return {.stateDirectory = directory.file("state"),
          .pipelineFile = directory.file("pipeline.pb.bin"),
          .deviceId = options.deviceId,
          .batchTimeout = options.batchTimeout,
          .orrery = options.orrery,
          .pluginDirectory = options.pluginDirectory,
          .enabled = options.enabled,
          .journalMib = options.journalMib,
          .ports = options.ports,
          .arguments = options.agent,
          .descriptorLimit = options.descriptorLimit};
}

}  // namespace

Switch::Switch(const Options& options)
    : agent(agentOptions(options, directory_)),
      forwarder(directory_.file("state"), options.forwarder),
      pipeline_(pipelineFor(options, directory_)) {}

Switch::~Switch() {
  // A process that a sanitizer only warns about goes on; its words must not get lost.
  const std::string words = agent.output() + forwarder.output();
  EXPECT_EQ(words.find("runtime error:"), std::string::npos);
  EXPECT_EQ(words.find("Sanitizer:"), std::string::npos);
  if (!testing::Test::HasFailure()) return;
  std::cerr << "---- agent ----\n"
            << agent.output() << "---- forwarder ----\n"
            << forwarder.output();
}

bool Switch::start() { return startAgent() && startForwarder() && connectController(); }
bool Switch::startAgent() { return agent.startServing(); }

bool Switch::startForwarder() {
  forwarder.start();
  return forwarder.waitAttached();
}

bool Switch::connectController() {
  controller_ =
      std::make_unique<TestController>(agent.address(), ++electionId_, agent.options().deviceId);
  controller_->onPacketInIs(onPacketIn);
  return controller_->becomePrimary();
}

bool Switch::restartAgent() {
  agent.kill();
  return startAgent() && forwarder.waitAttached() && connectController();
}

View Switch::controllerView() {
  p4::v1::TableEntry entries;
  entries.mutable_meter_config();  // asks for the meters too
  const EntitiesOutcome all =
      controller_->read(std::vector{entityOf(entries), entityOf(p4::v1::ActionProfileMember()),
                                    entityOf(p4::v1::ActionProfileGroup())});
  if (!all.status.ok()) return {{"read", all.status.error_message()}};
  return viewOf(pipeline_, all.entities);
}

ReadOutcome Switch::routes() {
  return controller_->readTable(pipeline_.table(Router::routeTable).preamble().id());
}

WriteOutcome Switch::insertRoutes(uint32_t from, uint32_t to, uint32_t nexthop) {
  std::vector<p4::v1::Update> updates;
  for (uint32_t i = from; i < to; ++i) updates.push_back(insertOf(route(i, nexthop)));
  return controller_->write(updates);
}

std::string Switch::disagreementNow() {
  const StoredState stored = storedState(pipeline_, agent.options().stateDirectory);
  std::string text = difference("controller", controllerView(), "caches", stored.caches) +
                     difference("rows", stored.rows, "forwarder", forwarderView(forwarder));
  if (stored.unstable) text += fmt::format("{} cache records are not stable\n", stored.unstable);
  for (const std::string& fault : stored.faults) text += fault + "\n";
  return text;
}

std::string Switch::disagreement() {
  std::string text;
  waitUntil([&] { return (text = disagreementNow()).empty(); }, agent.process().descriptor());
  return text;
}
