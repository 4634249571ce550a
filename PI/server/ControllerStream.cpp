#include "PI/server/ControllerStream.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "PI/core/PlainText.h"
#include "PI/server/Accounting.h"
#include "PI/server/CallStatus.h"
#include "PI/server/Requester.h"
#include "PI/server/Thread.h"
#include "PI/server/tls/Revocations.h"

namespace pi::server {

using grpc::Status;
using grpc::StatusCode;

namespace {

// The time that an ending stream has to send its queued messages.
constexpr std::chrono::seconds kDrainTime{1};

// A request that is longer is not copied into the report on it.
constexpr size_t kMaxReportedBytes = 16 << 10;

// Bytes of a controller's own text in a status message, which has no room for any length.
constexpr size_t kMostShown = 128;

// The config is the role's, which may get another one.
p4::v1::Role withoutConfig(p4::v1::Role role) {
  role.clear_config();
  return role;
}

// The member that names the kind of request, with the request in it if `copied`.
void detailsFrom(const p4::v1::StreamMessageRequest& request, bool copied,
                 p4::v1::StreamError* error) {
  switch (request.update_case()) {
    case p4::v1::StreamMessageRequest::kPacket: {
      auto* details = error->mutable_packet_out();
      if (copied) *details->mutable_packet_out() = request.packet();
      break;
    }
    case p4::v1::StreamMessageRequest::kDigestAck: {
      auto* details = error->mutable_digest_list_ack();
      if (copied) *details->mutable_digest_list_ack() = request.digest_ack();
      break;
    }
    default: {
      auto* details = error->mutable_other();
      if (copied && request.has_other()) *details->mutable_other() = request.other();
    }
  }
}

}  // namespace

Status ControllerStream::run() {
  std::thread writer;
  try {
    writer = startThread([this] { writeToEnd(); });
  } catch (const std::system_error&) {
    return Status(StatusCode::RESOURCE_EXHAUSTED,
                  "no thread left for another stream; close one first");
  }
  Status status = statusOf([this] { return readToEnd(); });
  arbitration_.clientDel(*this);
  queue_.close();
  awaitWriter();
  writer.join();
  return status;
}

Status ControllerStream::readToEnd() {
  Request request;
  while (call_.Read(&request)) {
    if (request.isTooLarge()) {
      return Status(StatusCode::RESOURCE_EXHAUSTED,
                    "the stream message has " + std::to_string(request.size) +
                        " bytes; send at most " + std::to_string(kMaxMessageBytes));
    }
    Status status = handle(request.message);
    if (!status.ok()) return status;
  }
  return Status::OK;
}

void ControllerStream::writeToEnd() {
  OutgoingQueue::Next next = queue_.next();
  for (; next.message; next = queue_.next()) {
    grpc::WriteOptions options;
    if (next.more)
      options.set_buffer_hint();  // the next message follows at once: one packet for both
    if (!call_.Write(*next.message, options)) break;  // the controller has gone
  }
  const std::lock_guard lock(mutex_);
  if (finishing_) context_.TryCancel();
  written_ = true;
  changed_.notify_all();
}

void ControllerStream::awaitWriter() {
  std::unique_lock lock(mutex_);
  if (changed_.wait_for(lock, kDrainTime, [this] { return written_; })) return;
  context_.TryCancel();  // it does not read: a write that waits for it fails now
}

void ControllerStream::finish() {
  const std::lock_guard lock(mutex_);
  finishing_ = true;
  queue_.close();
  if (written_) context_.TryCancel();
}

void ControllerStream::endWith(StatusCode code, const std::string& reason) {
  auto response = std::make_shared<p4::v1::StreamMessageResponse>();
  response->mutable_error()->set_canonical_code(code);
  response->mutable_error()->set_message(reason);
  response->mutable_error()->mutable_other();
  queue_.reportIs(std::move(response), reason.size());
  finish();
}

void ControllerStream::displaced(const std::string& reason) {
  endWith(StatusCode::RESOURCE_EXHAUSTED, reason);
  streams_.endingIs(*this);
}

void ControllerStream::cancel() { context_.TryCancel(); }

void ControllerStream::arbitrationNoticeIs(const ArbitrationNotice& notice) {
  auto message = std::make_shared<p4::v1::StreamMessageResponse>();
  p4::v1::MasterArbitrationUpdate* update = message->mutable_arbitration();
  update->set_device_id(deviceIdAsGiven_);
  if (roleAsGiven_) *update->mutable_role() = *roleAsGiven_;
  if (notice.config) *update->mutable_role()->mutable_config() = notice.config->given;
  if (notice.highest) {
    update->mutable_election_id()->set_high(notice.highest->high);
    update->mutable_election_id()->set_low(notice.highest->low);
  }
  update->mutable_status()->set_code(notice.code);
  switch (notice.code) {
    case StatusCode::OK:
      update->mutable_status()->set_message("you are the primary");
      break;
    case StatusCode::ALREADY_EXISTS:
      update->mutable_status()->set_message("you are a backup; another client is the primary");
      break;
    default:
      update->mutable_status()->set_message("you are a backup; there is no primary");
  }
  const size_t bytes = message->ByteSizeLong();
  queue_.noticeIs(std::move(message), bytes);
}

void ControllerStream::messageIs(OutgoingQueue::Message message, size_t bytes) {
  const bool isPacket = message->has_packet();
  const bool queued = queue_.packetIs(std::move(message), bytes);
  if (isPacket) (queued ? packetCounts_->in : packetCounts_->inSlow).add();
}

Status ControllerStream::handle(const p4::v1::StreamMessageRequest& request) {
  switch (request.update_case()) {
    case p4::v1::StreamMessageRequest::kArbitration:
      return accountedArbitration(request.arbitration());
    case p4::v1::StreamMessageRequest::kPacket:
    case p4::v1::StreamMessageRequest::kDigestAck:
      handleForDevice(request);
      break;
    case p4::v1::StreamMessageRequest::kOther:
      report(request, StatusCode::UNIMPLEMENTED,
             "stream messages of type '" + core::plainText(request.other().type_url(), kMostShown) +
                 "' are not supported");
      break;
    default:
      report(request, StatusCode::INVALID_ARGUMENT,
             "the stream message is empty; set arbitration, packet, digest_ack or other");
  }
  return Status::OK;
}

Status ControllerStream::accountedArbitration(const p4::v1::MasterArbitrationUpdate& update) {
  return accounted(context_, [&](AccountedCall& account) {
    account.requestIs(update);
    Status status = handleArbitration(update);
    if (status.ok()) account.detailAdd(arbitration_.isPrimary(*this) ? ", primary" : ", backup");
    return status;
  });
}

Status ControllerStream::handleArbitration(const p4::v1::MasterArbitrationUpdate& update) {
  RoleOfDevice role = roleOf(update);
  role.deviceId = devices_.servedAs(role.deviceId);
  const bool otherDevice = role_ && role_->deviceId != role.deviceId;  // worse than unknown
  if (!otherDevice) {
    Status known = devices_.requireKnown(role.deviceId);
    if (!known.ok()) return known;
  }
  std::shared_ptr<const RoleConfig> config;
  if (update.role().has_config()) {
    Status taken = role.role.empty() ? Status(StatusCode::INVALID_ARGUMENT,
                                              "the default role has no config; leave it unset")
                                     : roleConfigOf(update.role().config(), &config);
    if (!taken.ok()) return taken;
  }
  if (!role_) {
    role_ = role;
    deviceIdAsGiven_ = update.device_id();
    packetCounts_ = &core::packetCountsOf(role.deviceId);
    if (update.has_role()) roleAsGiven_ = withoutConfig(update.role());
  }
  Status unended = requireUnended();
  if (!unended.ok()) return unended;
  Status placed = requirePlace(role, update.has_election_id());
  if (!placed.ok()) return placed;
  Status named = config ? requireWritable(*config) : Status::OK;
  if (!named.ok()) return named;
  streams_.arbitratedIs(*this);
  return arbitration_.clientIs(*this, role, electionIdOf(update), std::move(config));
}

// The place is noted first: a policy that comes meanwhile finds it, if it was not asked here.
Status ControllerStream::requirePlace(const RoleOfDevice& role, bool takesPart) {
  {
    const std::lock_guard lock(accessMutex_);
    place_ = {role, takesPart};
    standing_.reset();
  }
  return requireItsPlace();
}

// A config bars others from its objects: under a policy only those with a right to them may do
// that.
Status ControllerStream::requireWritable(const RoleConfig& config) {
  const auto standing = this->standing();
  const auto device = devices_.device(role_->deviceId);
  if (!standing || !device) return Status::OK;
  const CallerAccess access = standing->access->byPolicyAlone();
  for (const auto* ids : {&config.exclusiveIds, &config.sharedIds}) {
    const auto writable = device->require_writable(access, *ids);
    if (writable.code() == 0) continue;
    return Status(static_cast<StatusCode>(writable.code()),
                  writable.message() + "; leave it out of the role's config");
  }
  return Status::OK;
}

Status ControllerStream::requireItsPlace() {
  bool takesPart = false;
  {
    const std::lock_guard lock(accessMutex_);
    if (!place_) return Status::OK;
    takesPart = place_->takesPart;
  }
  const auto standing = this->standing();
  return standing ? standing->access->requireContest(takesPart) : Status::OK;
}

Status ControllerStream::requireItsCertificate(const Revocations& revocations) const {
  const auto& [certificate, chain] = who_.certificate;
  if (certificate.empty()) return Status::OK;
  const std::string objection = revocations.objection(certificate, chain);
  return objection.empty() ? Status::OK : Status(StatusCode::UNAUTHENTICATED, objection);
}

// Two loads without a policy and objects of roles.
std::shared_ptr<const ControllerStream::Standing> ControllerStream::standing() {
  if (!hasPolicy() && !arbitration_.anyClaims()) return nullptr;
  const std::lock_guard lock(accessMutex_);
  if (standing_ && standing_->access->isUpToDate()) return standing_;
  standing_ = nullptr;
  std::unique_ptr<CallerAccess> access = who_.access();
  if (!access) return nullptr;
  if (place_) access->roleIs(place_->role.deviceId, place_->role.role);
  auto made = std::make_shared<Standing>();
  made->getsPackets = access->permits(CallerAccess::Operation::packetIn);
  made->sendsPackets = access->require(CallerAccess::Operation::packetOut);
  made->access = std::move(access);
  standing_ = std::move(made);
  return standing_;
}

bool ControllerStream::mayHear(const p4::v1::StreamMessageResponse& message) {
  const auto standing = this->standing();
  if (!standing) return true;
  if (message.has_packet()) return standing->getsPackets;
  const auto device = devices_.device(role_->deviceId);
  if (!device) return false;
  const auto mayRead = [&](uint32_t id) { return device->may_read(*standing->access, id); };
  if (message.has_digest()) return mayRead(message.digest().digest_id());
  return std::ranges::all_of(message.idle_timeout_notification().table_entry(),
                             [&](const auto& entry) { return mayRead(entry.table_id()); });
}

// One that is being ended must not come back.
Status ControllerStream::requireUnended() {
  const std::lock_guard lock(mutex_);
  if (!finishing_) return Status::OK;
  return Status(StatusCode::ABORTED, "the server is ending this stream; open another one");
}

void ControllerStream::handleForDevice(const p4::v1::StreamMessageRequest& request) {
  const bool isPacket = request.has_packet();
  if (!arbitration_.isPrimary(*this)) {
    if (isPacket) countNotPrimary();
    report(request, StatusCode::PERMISSION_DENIED,
           "not primary; become primary by an arbitration update first");
    return;
  }
  const auto device = devices_.device(role_->deviceId);
  if (!device) {
    if (isPacket) packetCounts_->outRefused.add();
    report(request, StatusCode::FAILED_PRECONDITION,
           "No forwarding pipeline config on device " + std::to_string(role_->deviceId) +
               " yet; push one, or wait until the switch has installed its own");
    return;
  }
  Status permitted = requireRight(request);
  if (!permitted.ok()) {
    if (isPacket) packetCounts_->outRefused.add();
    report(request, permitted.error_code(), permitted.error_message());
    return;
  }
  const auto status = device->stream_message_request_handle(request);
  const auto code = static_cast<StatusCode>(status.code());
  if (isPacket) countOut(code);
  if (code != StatusCode::OK) report(request, code, status.message());
}

Status ControllerStream::requireRight(const p4::v1::StreamMessageRequest& request) {
  const auto standing = this->standing();
  if (!standing) return Status::OK;
  if (request.has_packet()) return standing->sendsPackets;
  const auto device = devices_.device(role_->deviceId);
  if (!device || device->may_read(*standing->access, request.digest_ack().digest_id()))
    return Status::OK;
  return Status(StatusCode::PERMISSION_DENIED,
                "the digest " + std::to_string(request.digest_ack().digest_id()) +
                    " is another controller's");
}

// Before its first arbitration update a stream belongs to no device; where there is but one, the
// packet can only have been meant for that.
void ControllerStream::countNotPrimary() {
  if (role_) return packetCounts_->outNotPrimary.add();
  const auto deviceId = devices_.onlyDevice();
  if (deviceId) core::packetCountsOf(*deviceId).outNotPrimary.add();
}

void ControllerStream::countOut(StatusCode code) {
  if (code == StatusCode::OK) return packetCounts_->out.add();
  const bool isBad = code == StatusCode::INVALID_ARGUMENT || code == StatusCode::UNIMPLEMENTED;
  (isBad ? packetCounts_->outBadMetadata : packetCounts_->outRefused).add();
}

void ControllerStream::account(const p4::v1::StreamMessageRequest& request,
                               const Status& status) const {
  AccountedCall account(context_);
  account.messageIs(request, role_ ? role_->deviceId : 0, role_ ? role_->role : "");
  account.end(status);
}

// A controller that floods us and does not read costs neither memory nor the work of reporting.
void ControllerStream::report(const p4::v1::StreamMessageRequest& request, StatusCode code,
                              const std::string& message) {
  if (code == StatusCode::PERMISSION_DENIED) account(request, Status(code, message));
  const size_t requestBytes = request.ByteSizeLong();
  const bool copied = requestBytes <= kMaxReportedBytes;
  const size_t bytes = (copied ? requestBytes : 0) + message.size();
  if (!queue_.takesReport(bytes)) return;
  auto response = std::make_shared<p4::v1::StreamMessageResponse>();
  p4::v1::StreamError* error = response->mutable_error();
  error->set_canonical_code(code);
  error->set_message(message);
  detailsFrom(request, copied, error);
  queue_.reportIs(std::move(response), bytes);
}

}  // namespace pi::server
