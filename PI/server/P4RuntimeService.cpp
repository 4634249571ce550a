#include "PI/server/P4RuntimeService.h"

#include <grpcpp/support/method_handler.h>

#include <functional>
#include <utility>

#include "PI/core/PacketCounts.h"
#include "PI/proto/pi_server.h"
#include "PI/server/Answered.h"
#include "PI/server/ControllerStream.h"
#include "PI/server/LocalToken.h"
#include "PI/server/Requester.h"

namespace pi::server {

using grpc::Status;
using grpc::StatusCode;

namespace {

constexpr char kApiVersion[] = "1.5.0";

// Carries google.rpc.Status over: with details when there are any, and then as a whole.
Status toGrpc(const google::rpc::Status& status) {
  if (status.code() == 0) return Status::OK;
  const auto code = static_cast<StatusCode>(status.code());
  if (status.details_size() == 0) return Status(code, status.message());
  return Status(code, status.message(), status.SerializeAsString());
}

Status requireAtomicity(p4::v1::WriteRequest::Atomicity atomicity) {
  if (atomicity == p4::v1::WriteRequest::CONTINUE_ON_ERROR) return Status::OK;
  if (!p4::v1::WriteRequest::Atomicity_IsValid(atomicity)) {
    return Status(StatusCode::INVALID_ARGUMENT,
                  "unknown atomicity " + std::to_string(atomicity) + "; use CONTINUE_ON_ERROR");
  }
  return Status(StatusCode::UNIMPLEMENTED, "atomicity " +
                                               p4::v1::WriteRequest::Atomicity_Name(atomicity) +
                                               " is not supported; use CONTINUE_ON_ERROR");
}

Status requireAction(p4::v1::SetForwardingPipelineConfigRequest::Action action) {
  using Request = p4::v1::SetForwardingPipelineConfigRequest;
  if (action != Request::UNSPECIFIED && Request::Action_IsValid(action)) return Status::OK;
  return Status(StatusCode::INVALID_ARGUMENT, "action " + std::to_string(action) +
                                                  " is none; use VERIFY_AND_COMMIT or another "
                                                  "action of the API");
}

template <typename Request, typename Response>
using Unary =
    grpc::internal::RpcMethodHandler<P4RuntimeService, Request, Response, Request, Response>;

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

// By hand, as the generated service does it, because that one knows no arena.
void P4RuntimeService::methodsAre() {
  using namespace p4::v1;
  using grpc::ServerContext;
  using grpc::internal::RpcMethod;
  using Self = P4RuntimeService;
  methodIs("/p4.v1.P4Runtime/Write", RpcMethod::NORMAL_RPC,
           new Unary<WriteCall, WriteResponse>(
               [](Self* self, ServerContext*, const WriteCall* request, WriteResponse*) {
                 return answered([&] { return self->write(request->message()); });
               },
               this));
  methodIs("/p4.v1.P4Runtime/Read", RpcMethod::SERVER_STREAMING,
           new grpc::internal::ServerStreamingHandler<Self, ReadRequest, ReadResponse>(
               [](Self* self, ServerContext*, const ReadRequest* request,
                  grpc::ServerWriter<ReadResponse>* writer) {
                 return answered([&] { return self->read(*request, *writer); });
               },
               this));
  methodIs(
      "/p4.v1.P4Runtime/SetForwardingPipelineConfig", RpcMethod::NORMAL_RPC,
      new Unary<SetForwardingPipelineConfigRequest, SetForwardingPipelineConfigResponse>(
          [](Self* self, ServerContext* context, const SetForwardingPipelineConfigRequest* request,
             SetForwardingPipelineConfigResponse*) {
            return answered([&] { return self->setPipeline(*context, *request); });
          },
          this));
  methodIs("/p4.v1.P4Runtime/GetForwardingPipelineConfig", RpcMethod::NORMAL_RPC,
           new Unary<GetForwardingPipelineConfigRequest, GetForwardingPipelineConfigResponse>(
               [](Self* self, ServerContext*, const GetForwardingPipelineConfigRequest* request,
                  GetForwardingPipelineConfigResponse* response) {
                 return answered([&] { return self->getPipeline(*request, response); });
               },
               this));
  methodIs(
      "/p4.v1.P4Runtime/StreamChannel", RpcMethod::BIDI_STREAMING,
      new grpc::internal::BidiStreamingHandler<Self, StreamMessageRequest, StreamMessageResponse>(
          [](Self* self, ServerContext* context,
             grpc::ServerReaderWriter<StreamMessageResponse, StreamMessageRequest>* call) {
            return self->streamChannel(*context, *call);
          },
          this));
  methodIs(
      "/p4.v1.P4Runtime/Capabilities", RpcMethod::NORMAL_RPC,
      new Unary<CapabilitiesRequest, CapabilitiesResponse>(
          [](Self* self, ServerContext*, const CapabilitiesRequest* request,
             CapabilitiesResponse* response) { return self->capabilities(*request, response); },
          this));
}

Status P4RuntimeService::write(const p4::v1::WriteRequest& request) {
  const Status known = devices_.requireKnown(request.device_id());
  if (!known.ok()) return known;
  Arbitration::WritePermit permit;
  const Status permitted =
      arbitration_.writePermit(roleOf(request), electionIdOf(request), &permit);
  if (!permitted.ok()) return permitted;
  std::shared_ptr<DeviceMgr> device;
  const Status ready = requirePipeline(request.device_id(), &device);
  if (!ready.ok()) return ready;
  const Status atomicity = requireAtomicity(request.atomicity());
  if (!atomicity.ok()) return atomicity;
  return toGrpc(device->write(request));
}

Status P4RuntimeService::read(const p4::v1::ReadRequest& request,
                              grpc::ServerWriter<p4::v1::ReadResponse>& writer) {
  const Status known = devices_.requireKnown(request.device_id());
  if (!known.ok()) return known;
  const Status role = arbitration_.requireRole({request.device_id(), request.role()});
  if (!role.ok()) return role;
  std::shared_ptr<DeviceMgr> device;
  const Status ready = requirePipeline(request.device_id(), &device);
  if (!ready.ok()) return ready;
  return toGrpc(device->read(
      request, [&](const p4::v1::ReadResponse& response) { return writer.Write(response); }));
}

Status P4RuntimeService::setPipeline(const grpc::ServerContext& context,
                                     const p4::v1::SetForwardingPipelineConfigRequest& request) {
  if (hasLocalToken(context)) return toGrpc(devices_.pipelineIs(request));
  const Status known = devices_.requireKnown(request.device_id());
  if (!known.ok()) return known;
  const Status primary = arbitration_.requirePrimary(roleOf(request), electionIdOf(request));
  if (!primary.ok()) return primary;
  const Status action = requireAction(request.action());
  if (!action.ok()) return action;
  const auto device = devices_.device(request.device_id());
  if (!device) {
    return Status(StatusCode::UNAVAILABLE,
                  "device " + std::to_string(request.device_id()) +
                      " has no pipeline yet; the switch installs the configured one itself, wait "
                      "for it");
  }
  return toGrpc(
      device->pipeline_config_check(request.action(), request.has_config(), request.config()));
}

Status P4RuntimeService::getPipeline(const p4::v1::GetForwardingPipelineConfigRequest& request,
                                     p4::v1::GetForwardingPipelineConfigResponse* response) {
  using Request = p4::v1::GetForwardingPipelineConfigRequest;
  const Status known = devices_.requireKnown(request.device_id());
  if (!known.ok()) return known;
  if (!Request::ResponseType_IsValid(request.response_type())) {
    return Status(StatusCode::INVALID_ARGUMENT,
                  "unknown response_type " + std::to_string(request.response_type()) +
                      "; use ALL, COOKIE_ONLY, P4INFO_AND_COOKIE or DEVICE_CONFIG_AND_COOKIE");
  }
  const auto device = devices_.device(request.device_id());
  if (!device || !device->has_pipeline()) return Status::OK;
  return toGrpc(device->pipeline_config_get(request.response_type(), response->mutable_config()));
}

Status P4RuntimeService::streamChannel(
    grpc::ServerContext& context,
    grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, p4::v1::StreamMessageRequest>& call) {
  ControllerStream stream(context, call, arbitration_, devices_);
  streams_.streamIs(stream);
  const Status status = stream.run();
  streams_.streamDel(stream);
  return status;
}

Status P4RuntimeService::capabilities(const p4::v1::CapabilitiesRequest& request,
                                      p4::v1::CapabilitiesResponse* response) {
  if (request.device_id() != 0) {  // 0 is also what a client sends that names no device
    const Status known = devices_.requireKnown(request.device_id());
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
  return Status(StatusCode::FAILED_PRECONDITION,
                "no pipeline on device " + std::to_string(deviceId) +
                    " yet; wait until the switch has installed it");
}

// All streams share the one message; nothing of it is copied before it is serialized.
void P4RuntimeService::toPrimaries(uint64_t deviceId, p4::v1::StreamMessageResponse&& response) {
  const bool isPacket = response.has_packet();
  const size_t bytes = response.ByteSizeLong();
  const OutgoingQueue::Message shared =
      std::make_shared<const p4::v1::StreamMessageResponse>(std::move(response));
  bool hasPrimary = false;
  const auto send = [&](ArbitrationClient& client) {
    hasPrimary = true;
    static_cast<ControllerStream&>(client).messageIs(shared, bytes);
  };
  arbitration_.forEachPrimary(deviceId, std::ref(send));  // by reference: needs no memory
  if (isPacket && !hasPrimary) core::packetCountsOf(deviceId).inNoPrimary.add();
}

}  // namespace pi::server
