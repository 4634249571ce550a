// Pipelines that come and go under the load of several writers.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

constexpr uint32_t routesOfAWriter = 500;

// Writes routes of its own until it is stopped, and remembers the confirmed ones.
class Writer {
 public:
  Writer(Switch& on, uint32_t number)
      : switch_(on), first_(number * routesOfAWriter), thread_([this] { run(); }) {}

  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }
  uint64_t acknowledged() const { return acknowledged_; }
  const std::string& trouble() const { return trouble_; }                   // after stop()
  const std::map<uint32_t, uint32_t>& routes() const { return nexthops_; }  // after stop()
  uint32_t first() const { return first_; }

 private:
  void run() {
    for (uint32_t round = 0; !stopping_ && trouble_.empty(); ++round) writeOnce(round);
  }

  // Ten routes are written, changed or deleted; each for itself.
  void writeOnce(uint32_t round) {
    std::vector<p4::v1::Update> updates;
    std::map<uint32_t, uint32_t> next = nexthops_;
    for (uint32_t i = 0; i < 10; ++i) {
      const uint32_t route = first_ + (round * 7 + i) % routesOfAWriter;
      const uint32_t nexthop = round % 50 + 1;
      const bool there = nexthops_.contains(route);
      if (there && round % 3 == 0) {
        updates.push_back(deleteOf(switch_.route(route, 1)));
        next.erase(route);
      } else {
        const auto entry = switch_.route(route, nexthop);
        updates.push_back(there ? modifyOf(entry) : insertOf(entry));
        next[route] = nexthop;
      }
    }
    const WriteOutcome outcome = switch_.write(updates);
    if (outcome.ok()) ++acknowledged_;
    for (size_t i = 0; i < updates.size(); ++i) {
      const uint32_t route = first_ + (round * 7 + static_cast<uint32_t>(i)) % routesOfAWriter;
      if (outcome.code(i) == grpc::OK) {
        const auto now = next.find(route);
        now == next.end() ? nexthops_.erase(route) > 0 : (nexthops_[route] = now->second) > 0;
      } else if (outcome.code(i) != grpc::FAILED_PRECONDITION &&
                 outcome.code(i) != grpc::UNAVAILABLE) {
        trouble_ = testing::PrintToString(outcome);
      }
    }
  }

  Switch& switch_;
  const uint32_t first_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> acknowledged_{0};
  std::map<uint32_t, uint32_t> nexthops_;
  std::string trouble_;
  std::thread thread_;  // last: it uses the others
};

class PipelineChangeTest : public testing::Test {
 protected:
  PipelineChangeTest() { EXPECT_TRUE(switch_.start()); }

  std::string pathOf(const char* name) { return switch_.directory().file(name); }
  void pipelineWritten(const std::string& path, int64_t routeTableSize) {
    Pipeline pipeline = Router::pipeline();
    pipeline.tableSizeIs(Router::routeTable, routeTableSize);
    pipeline.written(path);
  }
  void pathIs(const std::string& path) {
    const CommandResult set = switch_.agent.korvel(
        {"set", "p4runtime/config/system", "forwardingPipelineConfigFilePath", path});
    EXPECT_EQ(set.exit.code, 0) << set.error;
  }
  void expectNothingLost(const std::vector<std::unique_ptr<Writer>>& writers) {
    ASSERT_TRUE(switch_.agent.waitServing()) << switch_.agent.output();
    for (const auto& writer : writers) {
      EXPECT_EQ(writer->trouble(), "");
      EXPECT_GT(writer->acknowledged(), 0u);
      for (uint32_t i = writer->first(); i < writer->first() + routesOfAWriter; ++i) {
        const auto expected = writer->routes().find(i);
        const auto found = switch_.controller().read(switch_.route(i, 1)).entries;
        ASSERT_EQ(found.size(), expected == writer->routes().end() ? 0u : 1u) << "route " << i;
        if (found.empty()) continue;
        EXPECT_EQ(found[0].SerializeAsString(),
                  switch_.route(i, expected->second).SerializeAsString());
      }
    }
    EXPECT_EQ(switch_.agent.output().find("critical"), std::string::npos) << switch_.agent.output();
    EXPECT_EQ(switch_.disagreement(), "");
  }

  Switch switch_{{.routeTableSize = 10000}};
};

// Usable and broken ones, under another path and in the same file.
TEST_F(PipelineChangeTest, AHundredUnderLoadLoseNothing) {
  std::vector<std::unique_ptr<Writer>> writers;
  for (uint32_t i = 0; i < 3; ++i) writers.push_back(std::make_unique<Writer>(switch_, i));
  std::ofstream(pathOf("broken")) << "no pipeline";
  for (int change = 0; change < 100; ++change) {
    const uint64_t before = writers[0]->acknowledged();
    const std::string path = pathOf(change % 2 == 0 ? "even" : "odd");
    pipelineWritten(path, 10000 + change);
    if (change % 5 == 4) pathIs(pathOf("broken"));
    pathIs(path);
    if (change % 10 == 0) {  // let it come up and serve; most are overtaken in the midst
      ASSERT_TRUE(waitUntil([&] { return writers[0]->acknowledged() > before; },
                            switch_.agent.process().descriptor()))
          << switch_.agent.output();
    }
  }
  ASSERT_TRUE(switch_.agent.waitServing());
  for (const auto& writer : writers) writer->stop();
  expectNothingLost(writers);
}

TEST_F(PipelineChangeTest, PortChangesWhileAPipelineWaitsForAWrite) {
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(switch_.forwarder.ctl({"latency", "300"}).exit.code, 0);
    WriteOutcome outcome;
    const uint32_t from = static_cast<uint32_t>(round) * 10;
    std::thread write([&] { outcome = switch_.insertRoutes(from, from + 10, 1); });
    pipelineWritten(pathOf("next"), 20000 + round);
    pathIs(round % 2 == 0 ? pathOf("next") : KORVEL_ROUTER_PIPELINE);
    const uint16_t port = freePort();
    const CommandResult set = switch_.agent.korvel(
        {"set", "p4runtime/config/system", "grpcServerPort", std::to_string(port)});
    EXPECT_EQ(set.exit.code, 0) << set.error;
    write.join();
    switch_.agent.portIs(port);
    ASSERT_TRUE(switch_.agent.waitServing()) << switch_.agent.output();
    ASSERT_TRUE(switch_.connectController());
    ASSERT_EQ(switch_.forwarder.ctl({"latency", "0"}).exit.code, 0);
    const size_t found = switch_.routes().entries.size();
    if (outcome.ok()) {
      EXPECT_EQ(found % 10, 0u);
    }
    EXPECT_EQ(switch_.agent.output().find("critical"), std::string::npos) << switch_.agent.output();
    EXPECT_EQ(switch_.disagreement(), "");
  }
}

}  // namespace
