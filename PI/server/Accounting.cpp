#include "PI/server/Accounting.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "PI/proto/pi_server_account.h"
#include "PI/proto/pi_server_shared.h"
#include "PI/server/Peer.h"
#include "PI/server/Requester.h"
#include "google/rpc/status.pb.h"

namespace pi::server {
namespace {

using Accountant = void (*)(const PIGrpcServerAccount_t*, void*);

std::atomic<Accountant> accountant{nullptr};
std::atomic<void*> accountantCookie{nullptr};

std::string counted(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string electionText(const p4::v1::Uint128& id) {
  return id.high() == 0 ? std::to_string(id.low())
                        : std::to_string(id.high()) + ":" + std::to_string(id.low());
}

bool isRefusal(grpc::StatusCode code) {
  return code == grpc::StatusCode::PERMISSION_DENIED || code == grpc::StatusCode::UNAUTHENTICATED ||
         code == grpc::StatusCode::RESOURCE_EXHAUSTED;
}

// Updates and queries of a call that failed in part, which its caller had no right to.
int refusedItems(const grpc::Status& status) {
  google::rpc::Status whole;
  if (status.error_details().empty() || !whole.ParseFromString(status.error_details())) return 0;
  return static_cast<int>(std::ranges::count_if(whole.details(), [](const auto& detail) {
    p4::v1::Error error;
    return detail.UnpackTo(&error) && error.canonical_code() == grpc::StatusCode::PERMISSION_DENIED;
  }));
}

void tellAccountant(const PIGrpcServerAccount_t& account) {
  if (const Accountant tell = accountant.load()) tell(&account, accountantCookie.load());
}

}  // namespace

AccountedCall::AccountedCall(const grpc::ServerContext& context)
    : context_(context),
      listened_(accountant.load(std::memory_order_relaxed) != nullptr),
      began_(listened_ ? std::chrono::steady_clock::now()
                       : std::chrono::steady_clock::time_point()) {}

void AccountedCall::callIs(const char* path) {
  const char* const slash = std::strrchr(path, '/');
  what_ = slash ? slash + 1 : path;
}

void AccountedCall::requestIs(const p4::v1::WriteRequest& request) {
  if (!listened_) return;
  what_ = "Write";
  changes_ = true;
  deviceId_ = request.device_id();
  role_ = roleOf(request).role;
}

void AccountedCall::updatesAre(size_t count) {
  if (listened_) detail_ = counted(count, "update");
}

void AccountedCall::requestIs(const p4::v1::SetForwardingPipelineConfigRequest& request) {
  if (!listened_) return;
  what_ = "push";
  changes_ = true;
  deviceId_ = request.device_id();
  role_ = roleOf(request).role;
  detail_ = p4::v1::SetForwardingPipelineConfigRequest::Action_Name(request.action());
}

void AccountedCall::requestIs(const p4::v1::ReadRequest& request) {
  if (!listened_) return;
  what_ = "Read";
  deviceId_ = request.device_id();
  role_ = request.role();
  detail_ = std::to_string(request.entities_size()) + " queries";
}

void AccountedCall::requestIs(const p4::v1::GetForwardingPipelineConfigRequest& request) {
  what_ = "GetForwardingPipelineConfig";
  deviceId_ = request.device_id();
}

void AccountedCall::requestIs(const p4::v1::CapabilitiesRequest& request) {
  what_ = "Capabilities";
  deviceId_ = request.device_id();
}

void AccountedCall::requestIs(const p4::v1::MasterArbitrationUpdate& request) {
  if (!listened_) return;
  what_ = "arbitration";
  changes_ = true;
  deviceId_ = request.device_id();
  role_ = roleOf(request).role;
  detail_ = request.has_election_id() ? "election id " + electionText(request.election_id())
                                      : "no election id";
}

void AccountedCall::messageIs(const p4::v1::StreamMessageRequest& request, uint64_t deviceId,
                              const std::string& role) {
  if (!listened_) return;
  what_ = request.has_packet() ? "packet-out" : "digest-ack";
  deviceId_ = deviceId;
  role_ = role;
}

void AccountedCall::end(const grpc::Status& status) const {
  if (!listened_) return;
  const int refused = refusedItems(status);
  const bool isRefused = refused > 0 || isRefusal(status.error_code());
  if (!changes_ && !isRefused) return;
  using std::chrono::microseconds;
  const auto took =
      std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now() - began_);
  const Peer peer = peerOf(context_);
  const bool isOwn = peer.way == Peer::Way::ownProcess;
  const std::string message = status.error_message();
  const std::string detail =
      refused > 0 ? detail_ + ", " + std::to_string(refused) + " refused" : detail_;
  const PIGrpcServerAccount_t account{.what = what_,
                                      .identity = isOwn ? "agent" : peer.identity.c_str(),
                                      .address = isOwn ? "own" : peer.address.c_str(),
                                      .device_id = deviceId_,
                                      .role = role_.c_str(),
                                      .detail = detail.c_str(),
                                      .code = status.error_code(),
                                      .is_refused = isRefused,
                                      .message = message.c_str(),
                                      .duration_us = static_cast<uint64_t>(took.count())};
  tellAccountant(account);
}

// gRPC does not say from where it has come.
void accountRefusedClient(const std::string& identity, const std::string& reason) {
  accountRefusal({"call", identity, "", "", grpc::StatusCode::UNAUTHENTICATED, reason});
}

}  // namespace pi::server

void pi::accountRefusal(const Refusal& refusal) {
  server::tellAccountant({.what = refusal.what,
                          .identity = refusal.identity.c_str(),
                          .address = refusal.address.c_str(),
                          .device_id = 0,
                          .role = "",
                          .detail = refusal.detail.c_str(),
                          .code = refusal.code,
                          .is_refused = 1,
                          .message = refusal.reason.c_str(),
                          .duration_us = 0});
}

void PIGrpcServerAccountantIs(void (*account)(const PIGrpcServerAccount_t*, void*), void* cookie) {
  pi::server::accountantCookie = cookie;
  pi::server::accountant = account;
}
