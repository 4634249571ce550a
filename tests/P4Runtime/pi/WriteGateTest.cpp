// The gate for Writes: stops new ones, lets the one in progress settle, and opens when all agree.
#include "P4Runtime/pi/WriteGate.h"

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/frontends/proto/device_mgr.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using pi::fe::proto::DeviceMgr;

class WriteGateTest : public AgentTest {
 protected:
  // Closes, and counts how often it heard that the gate is drained.
  void close(WriteGate::Closer& closer, int& drained) {
    const Vela::ActivityLock lock;
    closer.close([&drained] { ++drained; });
  }
  void open(WriteGate::Closer& closer) {
    const Vela::ActivityLock lock;
    closer.open();
  }
  static uint32_t level() { return DeviceMgr::get_operation_permission_level(); }
};

TEST_F(WriteGateTest, LetsTheWriteInProgressSettleAndOpensWhenTheLastCloserDoes) {
  WriteGate::Closer pipeline("a new pipeline");
  WriteGate::Closer server("a new address");
  int pipelineDrained = 0, serverDrained = 0;
  agent().begin();
  close(pipeline, pipelineDrained);
  close(server, serverDrained);
  EXPECT_EQ(TheWriteGate()->closedFor(), "a new pipeline, a new address");
  EXPECT_EQ(agent().add(0, exactEntry(1)), PI_STATUS_SUCCESS) << "it runs to its end";
  agent().end();
  forwarder().programAll();
  EXPECT_TRUE(agent().outcome().empty());
  EXPECT_EQ(pipelineDrained, 0) << "the reactor has its turn first";
  open(server);  // called off
  agent().settle();
  EXPECT_EQ(pipelineDrained, 1);
  EXPECT_EQ(serverDrained, 0);
  EXPECT_NE(agent().begin(), PI_STATUS_SUCCESS);
  close(server, serverDrained);
  EXPECT_EQ(serverDrained, 1) << "at once, with no batch to wait for";
  open(pipeline);
  EXPECT_EQ(level(), 0u) << "one keeps it closed still";
  open(server);
  open(server);
  EXPECT_EQ(level(), 2u);
  EXPECT_EQ(TheWriteGate()->closedFor(), "");
  EXPECT_NE(agent().program(exactEntry(2)), 0u);
}

TEST_F(WriteGateTest, CriticalStateComesAndGoesBehindAClosedGate) {
  WriteGate::Closer closer("work");
  int drained = 0;
  close(closer, drained);
  const Vela::ActivityLock lock;
  agent().tableImpl->triggerCriticalState();
  EXPECT_EQ(level(), 0u);
  closer.open();
  EXPECT_EQ(level(), 1u);
  closer.close();
  agent().tableImpl->revertCriticalState();
  EXPECT_EQ(level(), 0u);
  closer.open();
  EXPECT_EQ(level(), 2u);
}

}  // namespace
}  // namespace P4Runtime
