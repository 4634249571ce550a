// Owns the P4Runtime gRPC server: runs it on a thread of its own, installs the pipeline in it, and
// takes it down.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "P4Runtime/agent/ServerSecurity.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "platform/vela/Entity.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/ReactorLoop.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace P4Runtime {

// Threads: the reactor, with the activity lock held. At most one server thread runs in a process.
// Errors: without an address, a descriptor or a usable pipeline it says why on standard error and
// ends the process; setting the permission level throws Vela::BadValue while the level is not free.
// Lifetime: shared; the loop outlives it. The destructor closes the signal descriptor.
class KorvelPiServer : public DeviceServer {
 public:
  // Pushes the pipeline once the server object has been signalled, on a later pass of the reactor
  // than the notice that signalled it.
  class ServerReadySm : public Vela::RefCounted {
   public:
    ServerReadySm(KorvelPiServer& server, Vela::Ptr<Vela::FileDescriptor> fileDesc);
    void handleReadable();

   private:
    KorvelPiServer& server_;
    const Vela::Ptr<Vela::FileDescriptor> fileDesc_;
  };

  // `loop` outlives this. `config` may be null (tests).
  KorvelPiServer(Vela::ReactorLoop& loop,
                 Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> config);
  ~KorvelPiServer() override;
  const char* typeName() const override { return "P4Runtime::KorvelPiServer"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig>, p4RtSystemConfig,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(uint32_t, maxDevices, 1)  // must stay 1
  VELA_READONLY_ATTRIBUTE(int, signalFd, -1)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Vela::FileDescriptor>, fileDesc, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ServerReadySm>, serverReadySm, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, serverReady, false)  // the pipeline has been accepted
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)

 public:
  IpAddress piServerAddr() const;
  uint16_t piServerPort() const;
  uint32_t deviceId() const override;
  Vela::ReactorLoop& loop() const { return loop_; }

  std::string serverAddressPortStr() const;  // "10.1.2.3:700", "[::1]:700"
  // Before startProcessing(); plain on any address unless set.
  void securityIs(const ServerSecurity& security) { security_ = security; }
  const ServerSecurity& security() const { return security_; }
  // Starts the server thread. An address that cannot be bound ends the process with status 1.
  void startProcessing();
  void signal();
  // The request to push: the model was made of it. The file may hold another one by now.
  void pipelineRequestIs(std::string bytes) { pipelineRequest_ = std::move(bytes); }
  // Without such a request pushes the contents of the file. Aborts the process when the file cannot
  // be used, or the server rejects the request.
  void sendPipelineConfigMsg();
  void setOperationPermissionLevel(uint32_t level);
  // Takes no new calls and lets the running ones finish, without blocking the reactor: they need it
  // for the forwarding plane's reports. `done` runs on the reactor.
  void doShutDown(std::function<void()> done);
  // Shuts the server down and starts a fresh one, without pipeline, on the configured address.
  void doCleanup();

 private:
  class ConfigValue;

  void handleInitialized();
  void describeConfigValues();
  void describeOperations();
  p4::v1::SetForwardingPipelineConfigRequest requestToPush() const;
  Vela::ReactorLoop& loop_;
  ServerSecurity security_;
  std::vector<std::unique_ptr<ConfigValue>> configValues_;
  std::string pipelineRequest_;
  std::thread shutDownThread_;
  bool shuttingDown_ = false;  // until doCleanup()
};

Vela::Ptr<KorvelPiServer> korvelPiServerFactory(
    Vela::ReactorLoop& loop, Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> config);

}  // namespace P4Runtime
