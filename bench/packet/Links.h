// The ways that are measured: the kernel alone, gRPC alone, and the agent.
#pragma once

#include <memory>
#include <string>

#include "bench/packet/Path.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"

namespace Bench {

// Two AF_PACKET sockets, one on each end of a link.
class BarePath final : public Path {
 public:
  explicit BarePath(const TestSupport::VethPair& link);

 private:
  void send(std::span<const std::string_view> packets) override { sender_.send(packets); }

  TestSupport::PacketEndpoint sender_;
  TestSupport::PacketEndpoint receiver_;
};

// A stream between a client and a server that does nothing but count.
class GrpcPath final : public Path {
 public:
  enum class Direction { out, in };  // to the server, from the server
  explicit GrpcPath(Direction direction);
  ~GrpcPath() override;

 private:
  class Service;
  void send(std::span<const std::string_view> packets) override;

  const Direction direction_;
  std::unique_ptr<Service> service_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<TestSupport::TestController> client_;
};

// CPU time.
struct Cpu {
  Duration user{};
  Duration system{};
};

// An agent with one port and the CPU device, and a controller of it.
class PacketSwitch {
 public:
  PacketSwitch(const std::string& pipelineFile, const std::string& port);

  TestSupport::TestController& controller() { return *controller_; }
  Cpu cpu() const;  // used by the agent's threads since it started

  std::function<void(const p4::v1::PacketIn&)> packetIn;

 private:
  const TestSupport::TempDir directory_;
  TestSupport::AgentProcess agent_;
  std::unique_ptr<TestSupport::TestController> controller_;
};

// From the controller to the port's far end.
class PacketOutPath final : public Path {
 public:
  PacketOutPath(PacketSwitch& agent, const std::string& farEnd);

 private:
  void send(std::span<const std::string_view> packets) override;

  PacketSwitch& switch_;
  TestSupport::PacketEndpoint receiver_;
};

// From the CPU device's far end, where the forwarding plane writes, to the controller.
class PacketInPath final : public Path {
 public:
  PacketInPath(PacketSwitch& agent, const std::string& farEnd);
  ~PacketInPath() override;

 private:
  void send(std::span<const std::string_view> packets) override;

  PacketSwitch& switch_;
  TestSupport::PacketEndpoint sender_;
};

}  // namespace Bench
