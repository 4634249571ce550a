// The C functions that start and stop the one server of the process.
#include "PI/proto/pi_server.h"

#include <grpc/grpc.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/security/server_credentials.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "PI/core/PacketCounts.h"
#include "PI/proto/pi_server_policy.h"
#include "PI/proto/pi_server_process.h"
#include "PI/proto/pi_server_security.h"
#include "PI/server/Accounting.h"
#include "PI/server/Arbitration.h"
#include "PI/server/Devices.h"
#include "PI/server/Lenience.h"
#include "PI/server/Limits.h"
#include "PI/server/LocalToken.h"
#include "PI/server/PolicyInForce.h"
#include "PI/server/Server.h"
#include "PI/server/tls/LiveCertificates.h"
#include "PI/server/tls/TlsCredentials.h"
#include "access/PolicyText.h"

namespace {

using pi::server::CertificatePaths;
using pi::server::ListenOn;
using pi::server::LiveCertificates;
using pi::server::Server;
using pi::server::UnixSocketOptions;
using Credentials = std::shared_ptr<grpc::ServerCredentials>;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kPatience{10};
// Past it gRPC drops the responses of calls that still run; nobody waits that long for them.
constexpr seconds kCancelAfter{10};

struct Process {
  std::mutex mutex;  // guards the members below
  std::condition_variable changed;
  std::shared_ptr<Server> server;
  std::string error;                               // of the last start
  std::shared_ptr<LiveCertificates> certificates;  // of the last server that had some
  std::deque<std::string> tokens{{""}};  // all, since pointers to them have been given away
};

Process& TheProcess() {
  static Process* const process = new Process;  // threads may outlive static destruction
  return *process;
}

// Keeps gRPC's own threads: letting go of its last object joins them, and one of them may be ten
// seconds into its sleep when the server is to be restarted.
void gRpcKept() {
  static const bool kept = (grpc_init(), true);
  (void)kept;
}

// A server that is handed its connections does not look at its certificates before the first one
// comes; one that listens does.
void requireUsable(const Credentials& credentials) {
  int port = 0;
  grpc::ServerBuilder builder;
  const auto queue = builder.AddCompletionQueue();
  builder.AddListeningPort("127.0.0.1:0", credentials, &port);
  auto server = builder.BuildAndStart();
  const bool listening = server && port != 0;
  if (server) server->Shutdown();
  server.reset();
  queue->Shutdown();
  void* tag = nullptr;
  for (bool ok = true; queue->Next(&tag, &ok);) {
  }
  if (!listening) {
    throw std::runtime_error("cannot listen: gRPC refused the certificates; check them");
  }
}

// The server is published only when it listens. Throws std::runtime_error.
void start(const ListenOn& where) {
  if (TheProcess().server) {
    throw std::runtime_error("a server is running already; shut it down and clean it up first");
  }
  gRpcKept();
  std::string token = pi::server::randomToken();
  if (token.empty()) throw std::runtime_error("the kernel gives no random numbers; try again");
  TheProcess().server = std::make_shared<Server>(where, token);
  TheProcess().tokens.push_back(std::move(token));
}

// `whereOf` may throw, too.
template <typename WhereOf>
int run(WhereOf whereOf) {
  const std::lock_guard lock(TheProcess().mutex);
  TheProcess().error.clear();
  try {
    start(whereOf());
  } catch (const std::exception& e) {
    TheProcess().error = e.what();
  }
  TheProcess().changed.notify_all();
  return TheProcess().error.empty() ? 0 : -1;
}

std::shared_ptr<Server> server() {
  const std::lock_guard lock(TheProcess().mutex);
  return TheProcess().server;
}

std::string text(const char* given) { return given ? given : ""; }

Credentials sslCredentials(const PIGrpcServerSSLOptions_t& options) {
  grpc::SslServerCredentialsOptions ssl(
      static_cast<grpc_ssl_client_certificate_request_type>(options.client_auth));
  ssl.pem_root_certs = text(options.pem_root_certs);
  ssl.pem_key_cert_pairs.push_back({text(options.pem_private_key), text(options.pem_cert_chain)});
  return grpc::SslServerCredentials(ssl);
}

// A server that is started again goes on with the certificates that were in force, should their
// files be broken just then.
std::shared_ptr<LiveCertificates> certificatesAt(const CertificatePaths& paths) {
  auto& certificates = TheProcess().certificates;
  if (certificates && certificates->paths() == paths) {
    certificates->refreshed();
  } else {
    certificates = std::make_shared<LiveCertificates>(paths);
  }
  return certificates;
}

}  // namespace

int PIGrpcServerRunAddr(const char* server_address) {
  return PIGrpcServerRunWith(server_address ? server_address : "", nullptr, nullptr);
}

int PIGrpcServerRunAddrSSL(const char* server_address, const PIGrpcServerSSLOptions_t* options) {
  return run([&] {
    gRpcKept();
    const auto credentials = sslCredentials(options ? *options : PIGrpcServerSSLOptions_t{});
    requireUsable(credentials);
    return ListenOn{.address = text(server_address), .credentials = credentials};
  });
}

int PIGrpcServerRunWith(const char* server_address, const PIGrpcServerCertificates_t* certificates,
                        const PIGrpcServerUnixSocket_t* unix_socket) {
  return run([&] {
    gRpcKept();
    ListenOn where{.address = text(server_address)};
    if (certificates) {
      where.certificates = certificatesAt({.certificate = text(certificates->certificate),
                                           .key = text(certificates->key),
                                           .clientCa = text(certificates->client_ca),
                                           .crl = text(certificates->crl)});
    }
    where.credentials =
        where.certificates
            ? pi::server::tlsCredentials(where.certificates, &pi::server::accountRefusedClient)
            : grpc::InsecureServerCredentials();
    if (unix_socket) {
      where.unixSocket = UnixSocketOptions{.path = text(unix_socket->path),
                                           .mode = unix_socket->mode,
                                           .user = unix_socket->user,
                                           .group = unix_socket->group};
    }
    return where;
  });
}

void PIGrpcServerRemoveUnixSocket() {
  if (const auto running = server()) running->removeUnixSocket();
}

const char* PIGrpcServerCertificate() {
  thread_local std::string summary;
  const auto running = server();
  summary = running && running->certificates() ? running->certificates()->summary() : "";
  return summary.c_str();
}

const char* PIGrpcServerCertificateTrouble() {
  thread_local std::string trouble;
  const auto running = server();
  trouble = running && running->certificates() ? running->certificates()->trouble() : "";
  return trouble.c_str();
}

std::shared_ptr<grpc::Channel> PIGrpcServerOwnChannel() {
  const auto running = server();
  return running ? running->ownChannel() : nullptr;
}

const char* PIGrpcServerLastError() {
  thread_local std::string error;
  const std::lock_guard lock(TheProcess().mutex);
  error = TheProcess().error;
  return error.c_str();
}

int PIGrpcServerWaitStarted(int timeout_seconds) {
  std::unique_lock lock(TheProcess().mutex);
  TheProcess().changed.wait_for(lock, seconds(timeout_seconds),
                                [] { return TheProcess().server || !TheProcess().error.empty(); });
  return TheProcess().server ? 0 : -1;
}

void PIGrpcServerWait() {
  if (const auto running = server()) running->wait();
}

void PIGrpcServerShutdown() {
  if (const auto running = server()) running->shutDown(kCancelAfter, kPatience);
}

void PIGrpcServerForceShutdown(int deadline_seconds) {
  const milliseconds deadline = seconds(deadline_seconds > 0 ? deadline_seconds : 0);
  if (const auto running = server()) running->shutDown(deadline, deadline + seconds(1));
}

void PIGrpcServerCleanup() {
  const auto running = server();
  if (!running) return;
  running->shutDown(kCancelAfter, kPatience);
  running->wait();
  running->devicesDelAll();
  const std::lock_guard lock(TheProcess().mutex);
  if (TheProcess().server == running) TheProcess().server.reset();
}

void PIGrpcServerDefaultLimits(PIGrpcServerLimits_t* limits) {
  const pi::server::Limits from;
  *limits = {.connections = static_cast<uint32_t>(from.connections),
             .streams = static_cast<uint32_t>(from.streams),
             .streams_of_role = static_cast<uint32_t>(from.streamsOfRole),
             .roles = static_cast<uint32_t>(from.roles),
             .arbitration_timeout_ms = static_cast<uint32_t>(from.arbitrateWithin.count()),
             .writes = static_cast<uint32_t>(from.writes),
             .reads = static_cast<uint32_t>(from.reads),
             .memory_mib = static_cast<uint32_t>(from.memoryBytes >> 20)};
}

void PIGrpcServerLimitsIs(const PIGrpcServerLimits_t* limits) {
  const auto atLeastOne = [](uint32_t limit) { return std::max<size_t>(limit, 1); };
  pi::server::limitsAre(
      {.connections = atLeastOne(limits->connections),
       .streams = atLeastOne(limits->streams),
       .streamsOfRole = atLeastOne(limits->streams_of_role),
       .roles = atLeastOne(limits->roles),
       .arbitrateWithin = milliseconds(atLeastOne(limits->arbitration_timeout_ms)),
       .writes = atLeastOne(limits->writes),
       .reads = atLeastOne(limits->reads),
       .memoryBytes = atLeastOne(limits->memory_mib) << 20});
  if (const auto running = server()) running->limitsChanged();
}

namespace {

std::string& lastPolicyError() {
  thread_local std::string error;
  return error;
}

}  // namespace

int PIGrpcServerPolicyIs(const char* text, size_t size, const char* file) {
  lastPolicyError().clear();
  try {
    pi::server::policyIs(text ? Access::policyOf({text, size}, file ? file : "policy") : nullptr);
  } catch (const std::exception& e) {
    lastPolicyError() = e.what();
    return -1;
  }
  if (const auto running = server()) running->policyChanged();
  return 0;
}

const char* PIGrpcServerPolicyError() { return lastPolicyError().c_str(); }

void PIGrpcServerOnlyDeviceIs(uint64_t device_id) { pi::server::Devices::onlyDeviceIs(device_id); }

void PIGrpcServerLenienceIs(const PIGrpcServerLenience_t* lenience) {
  pi::server::lenienceIs({.deviceZero = lenience->device_zero != 0,
                          .noPipelineIsError = lenience->no_pipeline_is_error != 0});
}

void PIGrpcServerElectionIdIs(const PIGrpcServerElectionId_t* id) {
  pi::server::TheArbitration().highestIs({id->device_id, std::string(id->role, id->role_size)},
                                         {.high = id->high, .low = id->low});
}

void PIGrpcServerElectionIdKeeperIs(const PIGrpcServerElectionIdKeeper_t* keeper, void* cookie) {
  using pi::server::ElectionId;
  using pi::server::RoleOfDevice;
  const auto told = [cookie](auto* function) {
    return [cookie, function](const RoleOfDevice& role, ElectionId id = {}) {
      const PIGrpcServerElectionId_t told{.device_id = role.deviceId,
                                          .role = role.role.data(),
                                          .role_size = role.role.size(),
                                          .high = id.high,
                                          .low = id.low};
      function(&told, cookie);
    };
  };
  pi::server::TheArbitration().keeperIs(
      {.save = told(keeper->save), .forget = told(keeper->forget)});
}

size_t PIGrpcServerForgetElectionIds() { return pi::server::TheArbitration().forgetHighest(); }

uint64_t PIGrpcServerGetRefusedConnections() {
  const auto running = server();
  return running ? running->refusedConnections() : 0;
}

int PIGrpcServerGetPort() {
  const auto running = server();
  return running ? running->port() : 0;
}

uint64_t PIGrpcServerGetPacketInCount(uint64_t device_id) {
  return pi::core::packetCountsOf(device_id).in.get();
}

uint64_t PIGrpcServerGetPacketOutCount(uint64_t device_id) {
  return pi::core::packetCountsOf(device_id).out.get();
}

void PIGrpcServerGetPacketCounts(uint64_t device_id, PIGrpcServerPacketCounts_t* counts) {
  if (!counts) return;
  const pi::core::PacketCounts& from = pi::core::packetCountsOf(device_id);
  *counts = {.in = from.in.get(),
             .in_no_primary = from.inNoPrimary.get(),
             .in_slow = from.inSlow.get(),
             .in_malformed = from.inMalformed.get(),
             .out = from.out.get(),
             .out_not_primary = from.outNotPrimary.get(),
             .out_bad_metadata = from.outBadMetadata.get(),
             .out_refused = from.outRefused.get()};
}

const char* PIGrpcServerLastMalformedPacketIn(uint64_t device_id) {
  thread_local std::string reason;
  reason = pi::core::packetCountsOf(device_id).lastMalformed();
  return reason.c_str();
}

const char* PIGrpcServerLocalToken() {
  const std::lock_guard lock(TheProcess().mutex);
  return TheProcess().tokens.back().c_str();
}

const char* PIGrpcServerLocalTokenKey() { return "x-local-pipeline-token"; }
