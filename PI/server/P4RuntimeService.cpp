#include "PI/server/P4RuntimeService.h"

#include <grpcpp/support/method_handler.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

#include "PI/core/PacketCounts.h"
#include "PI/frontends/proto/write_statistics.h"
#include "PI/proto/pi_server.h"
#include "PI/server/Accounting.h"
#include "PI/server/ArenaRequest.h"
#include "PI/server/CallJournal.h"
#include "PI/server/CallStatus.h"
#include "PI/server/ControllerStream.h"
#include "PI/server/Lenience.h"
#include "PI/server/Limits.h"
#include "PI/server/LocalToken.h"
#include "PI/server/Peer.h"
#include "PI/server/Requester.h"
#include "PI/server/WriteMessage.h"

namespace pi::server {

using fe::proto::StageTimer;
using fe::proto::WriteStage;
using grpc::Status;
using grpc::StatusCode;

namespace {

constexpr char kApiVersion[] = "1.5.0";
constexpr std::chrono::milliseconds worthAsking{1};  // of waiting

// Carries google.rpc.Status over: with details when there are any, and then as a whole.
Status toGrpc(const google::rpc::Status& status) {
  if (status.code() == 0) return Status::OK;
  const auto code = static_cast<StatusCode>(status.code());
  if (status.details_size() == 0) return Status(code, status.message());
  return Status(code, status.message(), status.SerializeAsString());
}

google::rpc::Status fromGrpc(const Status& status) {
  google::rpc::Status out;
  out.set_code(status.error_code());
  out.set_message(status.error_message());
  return out;
}

Status requireAction(p4::v1::SetForwardingPipelineConfigRequest::Action action) {
  using Request = p4::v1::SetForwardingPipelineConfigRequest;
  if (action != Request::UNSPECIFIED && Request::Action_IsValid(action)) return Status::OK;
  return Status(StatusCode::INVALID_ARGUMENT, "action " + std::to_string(action) +
                                                  " is none; use VERIFY_AND_COMMIT or another "
                                                  "action of the API");
}

Status noPipeline(uint64_t deviceId) {
  return Status(StatusCode::FAILED_PRECONDITION,
                "No forwarding pipeline config on device " + std::to_string(deviceId) +
                    " yet; push one, or wait until the switch has installed its own");
}

// For a push that has overtaken its controller's arbitration update.
constexpr std::chrono::milliseconds kOvertaken{500};

constexpr const char* kReconcileKey = "korvel-reconcile";
constexpr size_t kMostHeaderText = 4096;  // of the 8 KiB of metadata that clients take

// Headers hold printable ASCII alone.
std::string headerText(const std::string& text) {
  std::string plain = text.substr(0, kMostHeaderText);
  if (plain.size() < text.size()) plain.replace(plain.size() - 3, 3, "...");
  for (char& byte : plain) {
    if (byte < ' ' || byte > '~') byte = '?';
  }
  return plain;
}

// Whether the query makes the device go through all entities of a kind.
bool isScan(const p4::v1::Entity& query) {
  switch (query.entity_case()) {
    case p4::v1::Entity::kTableEntry:
      return query.table_entry().match().empty();
    case p4::v1::Entity::kDirectCounterEntry:
      return query.direct_counter_entry().table_entry().match().empty();
    case p4::v1::Entity::kDirectMeterEntry:
      return query.direct_meter_entry().table_entry().match().empty();
    case p4::v1::Entity::kActionProfileMember:
      return query.action_profile_member().member_id() == 0;
    case p4::v1::Entity::kActionProfileGroup:
      return query.action_profile_group().group_id() == 0;
    default:
      return false;
  }
}

template <typename Request>
using RequestMessage = std::conditional_t<std::is_same_v<Request, p4::v1::WriteRequest>,
                                          WriteMessage, ArenaRequest<Request>>;

// Whether the journal tells of such requests.
template <typename Request>
constexpr bool isWriting = std::is_same_v<Request, p4::v1::WriteRequest> ||
                           std::is_same_v<Request, p4::v1::SetForwardingPipelineConfigRequest>;

constexpr int64_t kMaxScans = 256;

// A single request must not keep a thread for the product of its size and the tables'.
Status requireFewScans(const p4::v1::ReadRequest& request) {
  const auto& queries = request.entities();
  const int64_t scans = std::count_if(queries.begin(), queries.end(), isScan);
  if (scans <= kMaxScans) return Status::OK;
  return Status(StatusCode::RESOURCE_EXHAUSTED,
                "the request has " + std::to_string(scans) +
                    " queries that each read a whole table, profile or more; send at most " +
                    std::to_string(kMaxScans) + " of these at once");
}

}  // namespace

P4RuntimeService::P4RuntimeService(Arbitration& arbitration, std::string localToken)
    : arbitration_(arbitration),
      localToken_(std::move(localToken)),
      devices_([this](uint64_t deviceId, p4::v1::StreamMessageResponse&& response) {
        toPrimaries(deviceId, std::move(response));
      }) {
  methodsAre();
}

template <typename Handler>
void P4RuntimeService::methodIs(const char* name, grpc::internal::RpcMethod::RpcType type,
                                Handler* handler) {
  AddMethod(new grpc::internal::RpcServiceMethod(name, type, handler));
}

P4RuntimeService::AccessPtr P4RuntimeService::accessOf(const grpc::ServerContext& context) {
  return CallerAccess::make(arbitration_, rights_, [&] { return peerOf(context); });
}

template <typename Request, typename Serve>
Status P4RuntimeService::served(const grpc::ServerContext& context, const char* path,
                                const ReceivedMessage& received, size_t maxBytes, Serve serve) {
  return accounted(context, [&](AccountedCall& account) {
    account.callIs(path);
    const AccessPtr access = accessOf(context);
    if (access) {
      Status permitted = access->requireCall(path);
      if (!permitted.ok()) return permitted;
    }
    const size_t size = received.size();
    const std::string& name = Request::descriptor()->name();
    if (size > maxBytes) {
      return Status(StatusCode::RESOURCE_EXHAUSTED, "the " + name + " has " + std::to_string(size) +
                                                        " bytes; send at most " +
                                                        std::to_string(maxBytes));
    }
    // The process that runs us ends when its own push is refused: nobody's requests may do that.
    const size_t mostBytes = hasLocalToken(context) ? SIZE_MAX : limits().memoryBytes / 4;
    const auto memory = requestBytes_.take(size, mostBytes);
    if (!memory) {
      return Status(StatusCode::RESOURCE_EXHAUSTED,
                    "no memory for a " + name + " of " + std::to_string(size) +
                        " bytes beside the other requests; try again, or send smaller ones");
    }
    RequestMessage<Request> request;
    std::optional<StageTimer> parsing;
    if constexpr (std::is_same_v<Request, p4::v1::WriteRequest>) parsing.emplace(WriteStage::parse);
    const bool isParsed = request.parse(&received.bytes, size);
    parsing.reset();
    if (!isParsed) {
      return Status(StatusCode::INVALID_ARGUMENT, "the message is no p4.v1." + name);
    }
    account.requestIs(request.message());
    if constexpr (std::is_same_v<Request, p4::v1::WriteRequest>) {
      account.updatesAre(request.updates().count());
    }
    if (!isWriting<Request> || !isJournaled()) received.bytes.Clear();
    return serve(request, access);
  });
}

template <typename Request, typename Response, typename Serve>
void P4RuntimeService::unaryMethodIs(const char* name, CallKind kind, size_t maxBytes,
                                     Serve serve) {
  const auto serveReceived = [this, name, maxBytes, serve](UnaryCall& call,
                                                           const ReceivedMessage& received,
                                                           Response* response) {
    return served<Request>(call.context, name, received, maxBytes,
                           [&](const RequestMessage<Request>& request, const AccessPtr& access) {
                             return serve(*this, call, request, response, access);
                           });
  };
  methodIs(
      name, grpc::internal::RpcMethod::NORMAL_RPC,
      new UnaryHandler<Response, decltype(serveReceived)>(sendDeadlines_, kind, serveReceived));
}

// By hand, as the generated service does it, because that one parses before it asks.
void P4RuntimeService::methodsAre() {
  using namespace p4::v1;
  using grpc::ServerContext;
  using grpc::internal::RpcMethod;
  using Self = P4RuntimeService;
  unaryMethodIs<WriteRequest, WriteResponse>(
      "/p4.v1.P4Runtime/Write", CallKind::write, kMaxLargeMessageBytes,
      [](Self& self, UnaryCall& call, const WriteMessage& request, WriteResponse*,
         const AccessPtr& access) { return self.write(call, request, access); });
  methodIs("/p4.v1.P4Runtime/Read", RpcMethod::SERVER_STREAMING,
           new grpc::internal::ServerStreamingHandler<Self, ReceivedMessage, ReadResponse>(
               [](Self* self, ServerContext* context, const ReceivedMessage* received,
                  grpc::ServerWriter<ReadResponse>* writer) {
                 return self->served<ReadRequest>(
                     *context, "/p4.v1.P4Runtime/Read", *received, kMaxMessageBytes,
                     [&](const ArenaRequest<ReadRequest>& request, const AccessPtr& access) {
                       return self->read(*context, request.message(), *writer, access);
                     });
               },
               this));
  unaryMethodIs<SetForwardingPipelineConfigRequest, SetForwardingPipelineConfigResponse>(
      "/p4.v1.P4Runtime/SetForwardingPipelineConfig", CallKind::other, kMaxLargeMessageBytes,
      [](Self& self, UnaryCall& call,
         const ArenaRequest<SetForwardingPipelineConfigRequest>& request,
         SetForwardingPipelineConfigResponse*,
         const AccessPtr& access) { return self.setPipeline(call, request.message(), access); });
  unaryMethodIs<GetForwardingPipelineConfigRequest, GetForwardingPipelineConfigResponse>(
      "/p4.v1.P4Runtime/GetForwardingPipelineConfig", CallKind::other, kMaxMessageBytes,
      [](Self& self, UnaryCall& call,
         const ArenaRequest<GetForwardingPipelineConfigRequest>& request,
         GetForwardingPipelineConfigResponse* response,
         const AccessPtr&) { return self.getPipeline(call, request.message(), response); });
  methodIs("/p4.v1.P4Runtime/StreamChannel", RpcMethod::BIDI_STREAMING,
           new grpc::internal::BidiStreamingHandler<Self, StreamRequest, StreamMessageResponse>(
               [](Self* self, ServerContext* context,
                  grpc::ServerReaderWriter<StreamMessageResponse, StreamRequest>* call) {
                 return self->streamChannel(*context, *call);
               },
               this));
  unaryMethodIs<CapabilitiesRequest, CapabilitiesResponse>(
      "/p4.v1.P4Runtime/Capabilities", CallKind::other, kMaxMessageBytes,
      [](Self& self, UnaryCall& call, const ArenaRequest<CapabilitiesRequest>& request,
         CapabilitiesResponse* response,
         const AccessPtr&) { return self.capabilities(call, request.message(), response); });
}

template <typename Request>
RoleOfDevice P4RuntimeService::servedRole(const Request& request) const {
  RoleOfDevice role = roleOf(request);
  role.deviceId = devices_.servedAs(role.deviceId);
  return role;
}

Status P4RuntimeService::write(UnaryCall& call, const WriteMessage& received,
                               const AccessPtr& access) {
  const StageTimer whole(WriteStage::whole);
  const p4::v1::WriteRequest& request = received.message();
  Status known = devices_.requireKnown(devices_.servedAs(request.device_id()));
  if (!known.ok()) return known;
  if (access) {
    RoleOfDevice role = servedRole(request);
    access->roleIs(role.deviceId, std::move(role.role));
    Status inRole = access->requireCall(Access::path::write);
    if (!inRole.ok()) return inRole;
  }
  Arbitration::WritePermit permit;
  Status permitted = arbitration_.writePermit(servedRole(request), electionIdOf(request), &permit,
                                              access ? access->identity() : nullptr);
  if (!permitted.ok()) return permitted;
  std::shared_ptr<DeviceMgr> device;
  Status ready = requirePipeline(devices_.servedAs(request.device_id()), &device);
  if (!ready.ok()) return ready;
  Status placed = writes_.take(call.context.peer(), limits().writes, &call.place);
  if (!placed.ok()) return placed;
  CallJournal journal(PI_GRPC_SERVER_JOURNAL_WRITE, call.context, *call.request);
  const DeviceMgr::Status written = device->write(
      request, received.updates(),
      [&, came = Clock::now()] {
        google::rpc::Status wanted = stillWanted(call.context, request, came);
        if (wanted.code() == 0) journal.begin();
        return wanted;
      },
      access.get());
  journal.end(written);
  return toGrpc(written);
}

// A Write may have waited long for its turn. One that has not is not asked about: to ask costs the
// library a turn of its event loop, longer than a small Write takes.
google::rpc::Status P4RuntimeService::stillWanted(const grpc::ServerContext& context,
                                                  const p4::v1::WriteRequest& request,
                                                  Clock::time_point came) const {
  if (Clock::now() - came > worthAsking && context.IsCancelled()) {
    return fromGrpc(Status(StatusCode::CANCELLED,
                           "nobody waited any longer when the Write's turn came; it was not done"));
  }
  return fromGrpc(arbitration_.requireHighest(servedRole(request), electionIdOf(request)));
}

Status P4RuntimeService::read(grpc::ServerContext& context, const p4::v1::ReadRequest& request,
                              grpc::ServerWriter<p4::v1::ReadResponse>& writer,
                              const AccessPtr& access) {
  Status known = devices_.requireKnown(devices_.servedAs(request.device_id()));
  if (!known.ok()) return known;
  Status role = arbitration_.requireRole({devices_.servedAs(request.device_id()), request.role()});
  if (!role.ok()) return role;
  if (access) {
    const bool isOfAllRoles = request.role().empty();
    access->roleIs(devices_.servedAs(request.device_id()),
                   isOfAllRoles ? std::nullopt : std::optional(request.role()));
    Status inRole = access->requireCall(Access::path::read);
    if (!inRole.ok()) return inRole;
  }
  std::shared_ptr<DeviceMgr> device;
  Status ready = requirePipeline(devices_.servedAs(request.device_id()), &device);
  if (!ready.ok()) return ready;
  Status few = requireFewScans(request);
  if (!few.ok()) return few;
  std::optional<CallPlaces::Place> place;
  Status placed = reads_.take(context.peer(), limits().reads, &place);
  if (!placed.ok()) return placed;
  const DeviceMgr::ReadSink send = [&](const p4::v1::ReadResponse& response) {
    const SendDeadlines::Sending sending(sendDeadlines_, context, CallKind::read);
    return writer.Write(response);
  };
  return toGrpc(device->read(request, send, access.get()));
}

Status P4RuntimeService::takeOther(UnaryCall& call) {
  if (hasLocalToken(call.context)) return Status::OK;
  return others_.take(call.context.peer(), limits().otherCalls, &call.place);
}

Status P4RuntimeService::setPipeline(UnaryCall& call,
                                     const p4::v1::SetForwardingPipelineConfigRequest& request,
                                     const AccessPtr& access) {
  if (hasLocalToken(call.context)) {
    CallJournal journal(PI_GRPC_SERVER_JOURNAL_PIPELINE, call.context, *call.request);
    journal.begin();
    const DeviceMgr::Status installed = devices_.pipelineIs(request);
    journal.end(installed);
    return toGrpc(installed);
  }
  Status placed = takeOther(call);
  if (!placed.ok()) return placed;
  Status known = devices_.requireKnown(devices_.servedAs(request.device_id()));
  if (!known.ok()) return known;
  if (access) {
    RoleOfDevice role = servedRole(request);
    access->roleIs(role.deviceId, std::move(role.role));
    Status mayPush = access->require(CallerAccess::Operation::push);
    if (!mayPush.ok()) return mayPush;
  }
  Status primary = arbitration_.requirePusher(servedRole(request), electionIdOf(request),
                                              kOvertaken, access ? access->identity() : nullptr);
  if (!primary.ok()) return primary;
  Status action = requireAction(request.action());
  if (!action.ok()) return action;
  CallJournal journal(PI_GRPC_SERVER_JOURNAL_PUSH, call.context, *call.request);
  journal.begin();
  DeviceMgr::Status pushed =
      DeviceMgr::pipeline_config_push(devices_.servedAs(request.device_id()), request.action(),
                                      request.has_config() ? &request.config() : nullptr);
  journal.end(pushed);
  if (pushed.code() != 0) return toGrpc(pushed);
  // Beside the status, which must be a plain OK.
  if (!pushed.message().empty()) {
    call.context.AddTrailingMetadata(kReconcileKey, headerText(pushed.message()));
  }
  if (const auto device = devices_.device(devices_.servedAs(request.device_id()))) {
    device->pipeline_config_given_changed();
  }
  return Status::OK;
}

Status P4RuntimeService::getPipeline(UnaryCall& call,
                                     const p4::v1::GetForwardingPipelineConfigRequest& request,
                                     p4::v1::GetForwardingPipelineConfigResponse* response) {
  using Request = p4::v1::GetForwardingPipelineConfigRequest;
  Status placed = takeOther(call);
  if (!placed.ok()) return placed;
  Status known = devices_.requireKnown(devices_.servedAs(request.device_id()));
  if (!known.ok()) return known;
  if (!Request::ResponseType_IsValid(request.response_type())) {
    return Status(StatusCode::INVALID_ARGUMENT,
                  "unknown response_type " + std::to_string(request.response_type()) +
                      "; use ALL, COOKIE_ONLY, P4INFO_AND_COOKIE or DEVICE_CONFIG_AND_COOKIE");
  }
  const auto device = devices_.device(devices_.servedAs(request.device_id()));
  if (!device || !device->has_pipeline()) {
    return lenience().noPipelineIsError ? noPipeline(request.device_id()) : Status::OK;
  }
  return toGrpc(device->pipeline_config_get(request.response_type(), response->mutable_config()));
}

Status P4RuntimeService::streamChannel(
    grpc::ServerContext& context,
    grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, StreamRequest>& call) {
  const Peer peer = peerOf(context);
  const auto accessNow = [this, &peer] {
    return CallerAccess::make(arbitration_, rights_, [&] { return peer; });
  };
  if (const AccessPtr access = accessNow()) {
    Status permitted = accounted(context, [&](AccountedCall& account) {
      account.callIs("/p4.v1.P4Runtime/StreamChannel");
      return access->requireCall(Access::path::stream);
    });
    if (!permitted.ok()) return permitted;
  }
  ControllerStream stream(context, call, arbitration_, devices_, streams_,
                          {peer.identity, peerCertificateOf(context), accessNow});
  streams_.streamIs(stream);
  Status status = stream.run();
  streams_.streamDel(stream);
  return status;
}

Status P4RuntimeService::capabilities(UnaryCall& call, const p4::v1::CapabilitiesRequest& request,
                                      p4::v1::CapabilitiesResponse* response) {
  Status placed = takeOther(call);
  if (!placed.ok()) return placed;
  if (request.device_id() != 0) {  // 0: also sent by clients that name no device
    Status known = devices_.requireKnown(devices_.servedAs(request.device_id()));
    if (!known.ok()) return known;
  }
  response->set_p4runtime_api_version(kApiVersion);
  return Status::OK;
}

bool P4RuntimeService::hasLocalToken(const grpc::ServerContext& context) const {
  const auto& metadata = context.client_metadata();
  const auto found = metadata.find(PIGrpcServerLocalTokenKey());
  return found != metadata.end() &&
         equalInConstantTime({found->second.data(), found->second.size()}, localToken_);
}

Status P4RuntimeService::requirePipeline(uint64_t deviceId,
                                         std::shared_ptr<DeviceMgr>* device) const {
  *device = devices_.device(deviceId);
  if (*device && (*device)->has_pipeline()) return Status::OK;
  return noPipeline(deviceId);
}

// All streams share the one message; nothing of it is copied before it is serialized.
void P4RuntimeService::toPrimaries(uint64_t deviceId, p4::v1::StreamMessageResponse&& response) {
  const bool isPacket = response.has_packet();
  const size_t bytes = response.ByteSizeLong();
  const OutgoingQueue::Message shared =
      std::make_shared<const p4::v1::StreamMessageResponse>(std::move(response));
  bool hasPrimary = false;
  const auto send = [&](ArbitrationClient& client, const RoleConfig* config) {
    hasPrimary = true;
    if (isPacket && config && !config->takes(shared->packet())) return;
    auto& stream = static_cast<ControllerStream&>(client);
    if (stream.mayHear(*shared)) stream.messageIs(shared, bytes);
  };
  arbitration_.forEachPrimary(deviceId, std::ref(send));  // by reference: needs no memory
  if (isPacket && !hasPrimary) core::packetCountsOf(deviceId).inNoPrimary.add();
}

}  // namespace pi::server
