#include "PI/server/Server.h"

#include <grpcpp/grpcpp.h>
#include <grpcpp/resource_quota.h>

#include <stdexcept>
#include <system_error>
#include <utility>

#include "PI/server/CertificateWatch.h"
#include "PI/server/HealthService.h"
#include "PI/server/Limits.h"
#include "PI/server/Listener.h"
#include "PI/server/P4RuntimeService.h"
#include "PI/server/Thread.h"
#include "PI/server/UnixUsers.h"
#include "PI/server/tls/CertificateFiles.h"

namespace pi::server {
namespace {

constexpr std::chrono::milliseconds kStreamGrace{500};
constexpr int kBacklog = 512;

// Finds dead controllers. One that goes on pinging more often than twice a second while nothing
// else happens is disconnected ("too_many_pings").
void keepAliveIs(grpc::ServerBuilder& builder) {
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, 20'000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 10'000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 500);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, 20);
}

// Idle connections are closed: connections that do not speak the protocol, and connections without
// a call, which a client opens again by itself when it has one.
void connectionsAre(grpc::ServerBuilder& builder) {
  builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, 10'000);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, 120'000);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, 1024);
}

void threadsAre(grpc::ServerBuilder& builder) {
  using Option = grpc::ServerBuilder::SyncServerOption;
  builder.SetSyncServerOption(Option::NUM_CQS, 1);
  builder.SetSyncServerOption(Option::MIN_POLLERS, 1);
  builder.SetSyncServerOption(Option::MAX_POLLERS, 4);
}

}  // namespace

Server::Server(const ListenOn& where, const std::string& localToken)
    : service_(std::make_unique<P4RuntimeService>(TheArbitration(), localToken)),
      certificates_(where.certificates),
      unixSocket_(where.unixSocket ? std::make_unique<UnixSocket>(*where.unixSocket, kBacklog)
                                   : nullptr),
      health_(std::make_unique<HealthService>(TheHealth())),
      listener_(std::make_unique<Listener>(where.address, unixSocket_ ? unixSocket_->fd() : -1)),
      quota_(std::make_unique<grpc::ResourceQuota>("p4runtime")) {
  limitsChanged();
  using External = grpc::ServerBuilder::experimental_type::ExternalConnectionType;
  grpc::ServerBuilder builder;
  if (!where.address.empty()) {
    acceptor_ =
        builder.experimental().AddExternalConnectionAcceptor(External::FROM_FD, where.credentials);
  }
  if (unixSocket_) unixUsers_ = std::make_unique<UnixUsers>(builder);
  // The service checks sizes too, for each call, and its error names the limit.
  builder.SetMaxReceiveMessageSize(kMaxLargeMessageBytes);
  builder.SetMaxSendMessageSize(-1);  // a pipeline with all around it; other calls send small ones
  builder.SetResourceQuota(*quota_);
  keepAliveIs(builder);
  connectionsAre(builder);
  threadsAre(builder);
  builder.RegisterService(service_.get());
  builder.RegisterService(health_.get());
  server_ = builder.BuildAndStart();
  if (!server_) {
    throw std::runtime_error("cannot listen on " + where.address +
                             ": gRPC could not start its server");
  }
  if (certificates_) {
    watch_ = std::make_unique<CertificateWatch>(certificates_, [this](const auto& certificates) {
      service_->streams().handleRevocations(certificates.revocations);
    });
  }
  listener_->start([this](int listenerFd, int fd) { hand(listenerFd, fd); });
}

void Server::hand(int listenerFd, int fd) {
  if (unixSocket_ && listenerFd == unixSocket_->fd()) {
    unixUsers_->take(listenerFd, fd);
    return;
  }
  grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
  connection.listener_fd = listenerFd;
  connection.fd = fd;
  acceptor_->HandleNewConnection(&connection);
}

Server::~Server() {
  if (closing_.joinable()) closing_.join();
}

void Server::shutDown(std::chrono::milliseconds cancelAfter, std::chrono::milliseconds patience) {
  begin(cancelAfter);
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [this] { return down_; });
}

int Server::port() const { return listener_->port(); }

uint64_t Server::refusedConnections() const { return listener_->refused(); }

void Server::removeUnixSocket() {
  if (unixSocket_) unixSocket_->removeFile();
}

std::shared_ptr<grpc::Channel> Server::ownChannel() {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  return server_->InProcessChannel(arguments);
}

void Server::policyChanged() { service_->streams().handlePolicy(); }

// A thread for each call that may run, and some for calls that are about to be refused.
void Server::limitsChanged() {
  const Limits now = limits();
  quota_->Resize(now.memoryBytes);
  quota_->SetMaxThreads(static_cast<int>(now.streams + now.reads + now.writes + now.otherCalls +
                                         StreamSet::kMaxUnarbitrated + HealthService::kMostWatches +
                                         128));
}

// On a thread of its own, because gRPC waits for calls that cannot be cancelled.
void Server::begin(std::chrono::milliseconds cancelAfter) {
  const std::lock_guard lock(mutex_);
  if (closing_.joinable()) return;
  closing_ = startThread([this, cancelAfter] {
    listener_->stop();
    removeUnixSocket();
    health_->endWatches();
    std::thread streams;
    const auto endStreams = [this] { service_->streams().endAll(kStreamGrace); };
    try {
      streams = startThread(endStreams);
    } catch (const std::system_error&) {  // no thread is left: one after the other
      endStreams();
    }
    server_->Shutdown(std::chrono::system_clock::now() + cancelAfter);
    if (streams.joinable()) streams.join();
    const std::lock_guard lock(mutex_);
    down_ = true;
    changed_.notify_all();
  });
}

void Server::wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return down_; });
}

void Server::devicesDelAll() { service_->devicesDelAll(); }

}  // namespace pi::server
