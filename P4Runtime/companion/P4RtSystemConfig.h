// The entities by which the switch operating system configures the agent, and in which the agent
// publishes its state. Call with the activity lock held. The agent and the state database share
// them. Setters take any value; `korvel set` and the agent's start refuse bad ones.
#pragma once

#include <cstdint>
#include <string>

#include "P4Runtime/companion/BatchTimeout.h"
#include "P4Runtime/companion/DeviceName.h"
#include "P4Runtime/companion/IpAddress.h"
#include "platform/vela/Entity.h"

namespace P4RuntimeConfig {

// At "p4runtime/config/system"; the agent only reads it.
class P4RtSystemConfig : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::P4RtSystemConfig"; }

  VELA_ATTRIBUTE(bool, enabled, true)
  VELA_ATTRIBUTE(uint32_t, deviceId, 0)
  VELA_ATTRIBUTE(std::string, forwardingPipelineConfigFilePath, "")
  // Other machines reach the server only where this is set: calls are neither encrypted nor
  // authenticated.
  VELA_ATTRIBUTE(P4Runtime::IpAddress, grpcServerAddress, P4Runtime::IpAddress::loopback())
  VELA_ATTRIBUTE(uint16_t, grpcServerPort, 9559)
  // Limits of the server, at any one time unless said otherwise; it refuses more.
  VELA_ATTRIBUTE(uint32_t, maxConnections, 1024)  // and never more than half of the descriptors
  VELA_ATTRIBUTE(uint32_t, maxStreams, 512)
  VELA_ATTRIBUTE(uint32_t, maxStreamsOfRole, 256)
  VELA_ATTRIBUTE(uint32_t, maxRoles, 1024)          // with a name, remembered
  VELA_ATTRIBUTE(double, arbitrationTimeout, 10.0)  // seconds
  VELA_ATTRIBUTE(uint32_t, maxWrites, 256)          // one runs, the others wait
  VELA_ATTRIBUTE(uint32_t, maxReads, 512)
  VELA_ATTRIBUTE(uint32_t, maxServerMemory, 512)  // MiB
  // For controllers that need something beyond the letter of P4Runtime.
  VELA_ATTRIBUTE(bool, deviceIdZero, false)       // device id 0 stands for this device
  VELA_ATTRIBUTE(bool, noPipelineIsError, false)  // GetForwardingPipelineConfig without one fails
  VELA_ATTRIBUTE(bool, zeroWeights, false)        // a group's member of weight 0 counts as 1
  VELA_ATTRIBUTE(bool, bothCounts, false)         // of counters, whatever their unit
  VELA_ATTRIBUTE(bool, paddedAnswers, false)      // numbers in answers are as long as their widths
};

// At "p4runtime/status/system".
class P4RtSystemStatus : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::P4RtSystemStatus"; }

  VELA_READONLY_ATTRIBUTE(bool, enabled, false)
  // For whom a disable, or the enabling after one, is waiting; "": for nobody.
  VELA_READONLY_ATTRIBUTE(std::string, waitsFor, "")
  VELA_READONLY_ATTRIBUTE(bool, brokenInvariant, false)
  // Writes are refused; since when (UTC, ISO 8601) and why. Empty texts when not critical.
  VELA_READONLY_ATTRIBUTE(bool, critical, false)
  VELA_READONLY_ATTRIBUTE(std::string, criticalSince, "")
  VELA_READONLY_ATTRIBUTE(std::string, criticalReason, "")

 public:
  // Enter and leave the critical state; an earlier reason stands until it is left.
  void criticalIs(const std::string& reason, const std::string& since);
  void criticalCleared();
};

}  // namespace P4RuntimeConfig

namespace P4Runtime {

// The agent's own configuration, at "p4runtime/config/agent".
class AgentConfig : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::AgentConfig"; }

  VELA_ATTRIBUTE(bool, exitRequested, false)
  // For the next report of a batch.
  VELA_ATTRIBUTE(BatchTimeout, batchTimeout, 5.0)
  // Where the running pipeline is written for people to read.
  VELA_ATTRIBUTE(std::string, p4InfoJsonPath, "/etc/pipeline_config_p4info.json")
  VELA_ATTRIBUTE(std::string, deviceJsonPath, "/etc/pipeline_config_device.json")
  VELA_ATTRIBUTE(bool, tableSizeCheckEnabled, true)
  // Pushes of pipelines that would run without some of their parts are refused.
  VELA_ATTRIBUTE(bool, strictPushes, false)
  // Pushes are refused whose program the software switch would not execute.
  VELA_ATTRIBUTE(bool, checkPrograms, false)
  // Multicast groups and clone sessions take mapped ports and the CPU's alone.
  VELA_ATTRIBUTE(bool, checkPorts, false)
  VELA_ATTRIBUTE(uint32_t, cpuPort, 0)  // as the program sees it; 0: none
  // Where plugins are looked for when the agent starts; "": "korvel/plugins" beside the agent's
  // library, if that is there.
  VELA_ATTRIBUTE(std::string, pluginDirectory, "")
  // Over which packets for controllers come in; switches of one network namespace need one each.
  VELA_ATTRIBUTE(DeviceName, cpuDevice, DeviceName())
  // Every packet-out goes to the CPU device with its header, for the forwarding plane's program.
  VELA_ATTRIBUTE(bool, packetOutToProgram, false)
};

}  // namespace P4Runtime
