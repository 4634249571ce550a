#include "P4Runtime/agent/KorvelPiServer.h"

#include <grpcpp/grpcpp.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <semaphore>
#include <utility>

#include "P4Runtime/agent/P4RuntimeLocalController.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/WriteGate.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi.h"
#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_security.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/Failure.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiServer");

using pi::fe::proto::DeviceMgr;

constexpr int secondsToStart = 10;

// A Write that came in beside a change of the pipeline would lose its tables midway.
void requireThatTheGateAllows(uint32_t level) {
  const WriteGate* gate = TheWriteGate();
  const auto* status = TheP4RtSystemStatus();
  if (gate && !gate->isOpen() && level > nothingAllowed) {
    throw Vela::BadValue("permissionLevel is 0 now: Writes wait for " + gate->closedFor());
  }
  if (status && (status->critical() || status->brokenInvariant()) && level == writesAllowed) {
    throw Vela::BadValue(
        "permissionLevel is 1 at most: the switch is critical; call revertCriticalState of "
        "p4runtime/tableImpl");
  }
}

// Within the process, whatever the server wants of others. Gives the activity lock up while the
// server starts.
std::shared_ptr<grpc::Channel> ownChannel() {
  const Vela::ActivityLockReleased released;
  PIGrpcServerWaitStarted(secondsToStart);
  if (auto channel = PIGrpcServerOwnChannel()) return channel;
  if (*PIGrpcServerLastError()) sleep(secondsToStart);  // its thread says why, and ends the process
  std::fprintf(stderr, "korvel: the server did not start within %d seconds\n", secondsToStart);
  assert(!"the server runs");
  std::abort();
}

pthread_t serverThread{};
bool serverThreadStarted = false;
std::binary_semaphore serverThreadHasArguments(0);

// The address is read before startProcessing() returns; the object may be gone after that.
void* piServiceThreadMain(void* arg) {
  const auto* piServer = static_cast<const KorvelPiServer*>(arg);
  assert(piServer);
  const std::string address = piServer->serverAddressPortStr();
  const uint16_t port = piServer->piServerPort();
  const ServerSecurity security = piServer->security();
  // Any free port would be served, and no controller would find it.
  const bool listens = port != 0 || !security.unixSocket.empty();
  serverThreadHasArguments.release();
  if (!listens || runServer(security, address, port) != 0) {
    std::fprintf(
        stderr, "korvel: %s\n",
        listens ? PIGrpcServerLastError() : "grpcServerPort is 0; choose a port from 1 to 65535");
    Scrivel::flush();
    _exit(1);  // other threads are running: no destructors
  }
  PIGrpcServerWait();
  PIGrpcServerCleanup();
  return nullptr;
}

}  // namespace

// A value of the configuration, shown as an attribute of the server.
class KorvelPiServer::ConfigValue : public Vela::AttributeBase {
 public:
  ConfigValue(KorvelPiServer& server, const char* name, const char* typeName,
              std::function<std::string()> text)
      : AttributeBase(server, name, Access::readOnly),
        typeName_(typeName),
        text_(std::move(text)) {}
  const char* typeName() const override { return typeName_; }
  std::string text() const override { return text_(); }
  void textIs(std::string_view text) override { refuse(text); }

 private:
  const char* const typeName_;
  const std::function<std::string()> text_;
};

KorvelPiServer::KorvelPiServer(Vela::ReactorLoop& loop,
                               Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> config)
    : DeviceServer("piServer"), loop_(loop) {
  p4RtSystemConfigIs(std::move(config));
  describeConfigValues();
  describeOperations();
  handleInitialized();
}

void KorvelPiServer::describeConfigValues() {
  const auto valueIs = [this]<typename Value>(const char* name,
                                              Value (KorvelPiServer::*value)() const) {
    using Form = Vela::TextForm<Value>;
    configValues_.push_back(std::make_unique<ConfigValue>(
        *this, name, Form::typeName(), [this, value] { return Form::toText((this->*value)()); }));
  };
  valueIs("piServerAddr", &KorvelPiServer::piServerAddr);
  valueIs("piServerPort", &KorvelPiServer::piServerPort);
  valueIs("deviceId", &KorvelPiServer::deviceId);
}

// Operations that would take the server away from its calls exist only to refuse with a reason.
void KorvelPiServer::describeOperations() {
  const auto refusedIs = [this](const char* name, const std::string& reason) {
    operationIs({name, {}, [name, reason](const auto&) -> std::string {
                   throw Vela::BadValue(std::string(name) + " is the agent's own: " + reason);
                 }});
  };
  refusedIs("handleInitialized", "the object is made already");
  operationIs({"serverAddressPortStr", {}, [this](const auto&) { return serverAddressPortStr(); }});
  refusedIs("startProcessing", "the server runs; a second one would find its port taken");
  const std::string pushes =
      "a push beside a Write in progress would take its pipeline away; set "
      "forwardingPipelineConfigFilePath of p4runtime/config/system";
  refusedIs("signal", pushes);
  refusedIs("sendPipelineConfigMsg", pushes);
  operationIs({"setOperationPermissionLevel", {"permissionLevel"}, [this](const auto& arguments) {
                 const auto level = Vela::TextForm<uint32_t>::fromText(arguments.at(0));
                 if (!level || *level > writesAllowed) {
                   throw Vela::BadValue("permissionLevel is 0, 1 or 2, not '" + arguments.at(0) +
                                        "'");
                 }
                 requireThatTheGateAllows(*level);
                 setOperationPermissionLevel(*level);
                 return "permission level is " + std::to_string(*level);
               }});
  operationIs({"forgetElectionIds", {}, [](const auto&) {
                 const Vela::ActivityLockReleased released;  // the store is changed under it
                 return "forgotten for " + std::to_string(PIGrpcServerForgetElectionIds()) +
                        " roles without a primary";
               }});
  refusedIs("doCleanup",
            "it leaves a server without pipeline and entries; set grpcServerPort of "
            "p4runtime/config/system to move the server");
}

KorvelPiServer::~KorvelPiServer() {
  doCleanup();
  serverReadySmIs(nullptr);
  fileDescIs(nullptr);
  close(signalFd());
}

Vela::Ptr<KorvelPiServer> korvelPiServerFactory(
    Vela::ReactorLoop& loop, Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> config) {
  return Vela::make<KorvelPiServer>(loop, std::move(config));
}

void KorvelPiServer::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  signalFdIs(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (signalFd() < 0) assert(!"Cannot open eventfd");
  auto descriptor = Vela::make<Vela::FileDescriptor>(loop_, "signalFd");
  descriptor->descriptorIs(signalFd());
  descriptor->nonBlockingIs(true);
  fileDescIs(descriptor);
  serverReadySmIs(Vela::make<ServerReadySm>(*this, descriptor));
  initializedIs(true);
}

IpAddress KorvelPiServer::piServerAddr() const {
  return p4RtSystemConfig() ? p4RtSystemConfig()->grpcServerAddress() : IpAddress();
}

uint16_t KorvelPiServer::piServerPort() const {
  return p4RtSystemConfig() ? p4RtSystemConfig()->grpcServerPort() : 0;
}

uint32_t KorvelPiServer::deviceId() const {
  return p4RtSystemConfig() ? p4RtSystemConfig()->deviceId() : 0;
}

std::string KorvelPiServer::serverAddressPortStr() const {
  const IpAddress address = piServerAddr();
  const std::string host = address.isIpv6() ? "[" + address.text() + "]" : address.text();
  return host + ":" + std::to_string(piServerPort());
}

void KorvelPiServer::startProcessing() {
  SCRIVEL_TRACE(1, "startProcessing");
  const Vela::ActivityLockReleased released;
  const int error = pthread_create(&serverThread, nullptr, piServiceThreadMain, this);
  if (error != 0) {
    errno = error;
    std::perror("Failed to create thread");
    _exit(-1);
  }
  serverThreadHasArguments.acquire();
  serverThreadStarted = true;
}

void KorvelPiServer::signal() {
  const uint64_t one = 1;
  if (write(signalFd(), &one, sizeof one) != sizeof one) {
    assert(!"Failed to signal the parent process");
  }
}

KorvelPiServer::ServerReadySm::ServerReadySm(KorvelPiServer& server,
                                             Vela::Ptr<Vela::FileDescriptor> fileDesc)
    : server_(server), fileDesc_(std::move(fileDesc)) {
  fileDesc_->onReadableIs([this] { handleReadable(); });
}

void KorvelPiServer::ServerReadySm::handleReadable() {
  SCRIVEL_TRACE(1, "handleReadable");
  uint64_t count = 0;
  if (read(fileDesc_->descriptor(), &count, sizeof count) != sizeof count) return;
  if (server_.shuttingDown_) return;  // the fresh server gets a signal of its own
  server_.sendPipelineConfigMsg();
  server_.serverReadyIs(true);
}

void KorvelPiServer::sendPipelineConfigMsg() {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(1, "sendPipelineConfigMsg");
  assert(maxDevices() == 1);
  serverReadyIs(false);  // entries are restored into each new pipeline
  DeviceMgr::init(1);
  SCRIVEL_TRACE(1, "sendPipelineConfigMsg",
                " server thread is: ", static_cast<uint64_t>(serverThread));
  P4RuntimeLocalController controller(p4::v1::P4Runtime::NewStub(ownChannel()));
  controller.setForwardingPipelineConfigRequest(requestToPush());
  serverReadyIs(true);
}

p4::v1::SetForwardingPipelineConfigRequest KorvelPiServer::requestToPush() const {
  p4::v1::SetForwardingPipelineConfigRequest request;
  if (!pipelineRequest_.empty() && request.ParseFromString(pipelineRequest_)) return request;
  const std::string path = p4RtSystemConfig()->forwardingPipelineConfigFilePath();
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    SCRIVEL_TRACE(0, "sendPipelineConfigMsg", " Failed to open file ", path);
    std::fprintf(stderr, "korvel:  Failed to open file %s\n", path.c_str());
    assert(!"pipeline configuration file can be opened");
  }
  if (!request.ParseFromIstream(&file)) {
    SCRIVEL_TRACE(0, "sendPipelineConfigMsg", " Failed to read pipeline configuration file ", path);
    std::fprintf(stderr, "korvel:  Failed to read pipeline configuration file %s\n", path.c_str());
    assert(!"pipeline configuration file can be read");
  }
  return request;
}

void KorvelPiServer::setOperationPermissionLevel(uint32_t level) {
  const auto previous = DeviceMgr::get_operation_permission_level();
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(1, "setOperationPermissionLevel", " previous permission level was ", previous,
                "%s and it is set to ", level);
  DeviceMgr::set_operation_permission_level(level);
}

void KorvelPiServer::doShutDown(std::function<void()> done) {
  serverReadyIs(false);
  shuttingDown_ = true;
  shutDownThread_ = Vela::startThread("stop the server", [this, done = std::move(done)] {
    PIGrpcServerWaitStarted(secondsToStart);
    PIGrpcServerShutdown();
    pthread_join(serverThread, nullptr);
    loop_.post([this, done] {
      shutDownThread_.join();
      serverThreadStarted = false;
      done();
    });
  });
}

void KorvelPiServer::doCleanup() {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(1, "doCleanup", " server thread id: ", static_cast<uint64_t>(serverThread));
  serverReadyIs(false);
  shuttingDown_ = false;
  if (serverThreadStarted) {
    // Calls in progress need the lock to finish.
    const Vela::ActivityLockReleased released;
    PIGrpcServerWaitStarted(secondsToStart);
    PIGrpcServerShutdown();
  }
  pi_remove_device(deviceId());
  pi_destroy();
  if (std::exchange(serverThreadStarted, false)) {
    const Vela::ActivityLockReleased released;
    pthread_join(serverThread, nullptr);
  }
  startProcessing();
}

}  // namespace P4Runtime
