#include "cli/journal/ReplayTarget.h"

#include <fmt/format.h>
#include <google/protobuf/util/message_differencer.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "cli/journal/Words.h"
#include "google/rpc/status.pb.h"
#include "pipeline/Files.h"

namespace Cli {

using google::protobuf::util::MessageDifferencer;

namespace {

constexpr std::chrono::seconds patience{120};  // for one call
constexpr std::chrono::seconds patienceToConnect{10};
constexpr std::chrono::milliseconds pollPeriod{100};
constexpr int mostMetadataBytes = 1 << 20;

std::shared_ptr<grpc::ChannelCredentials> credentialsOf(const TargetOptions& options) {
  if (options.ca.empty()) return grpc::InsecureChannelCredentials();
  grpc::SslCredentialsOptions ssl;
  ssl.pem_root_certs = Pipeline::fileContents(options.ca);
  if (!options.certificate.empty())
    ssl.pem_cert_chain = Pipeline::fileContents(options.certificate);
  if (!options.key.empty()) ssl.pem_private_key = Pipeline::fileContents(options.key);
  return grpc::SslCredentials(ssl);
}

std::shared_ptr<grpc::Channel> connected(const TargetOptions& options) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, mostMetadataBytes);
  auto channel = grpc::CreateCustomChannel(options.address, credentialsOf(options), arguments);
  if (channel->WaitForConnected(std::chrono::system_clock::now() + patienceToConnect)) {
    return channel;
  }
  throw std::runtime_error(
      fmt::format("cannot reach a switch at {}; name another address, and --ca if it wants TLS",
                  options.address));
}

std::runtime_error failed(const std::string& what, const TargetOptions& options,
                          const grpc::Status& status) {
  return std::runtime_error(fmt::format("{} at {}: {}: {}", what, options.address,
                                        codeText(static_cast<uint32_t>(status.error_code())),
                                        plainText(status.error_message())));
}

// The switch's words may hold anything; those who show them need lines.
std::vector<p4::v1::Error> errorsOf(const grpc::Status& status) {
  std::vector<p4::v1::Error> errors;
  google::rpc::Status details;
  if (!details.ParseFromString(status.error_details())) return errors;
  for (const auto& detail : details.details()) {
    p4::v1::Error& error = errors.emplace_back();
    detail.UnpackTo(&error);
    error.set_message(plainText(error.message()));
  }
  return errors;
}

void limit(grpc::ClientContext& context) {
  context.set_deadline(std::chrono::system_clock::now() + patience);
}

}  // namespace

ReplayTarget::ReplayTarget(TargetOptions options)
    : options_(std::move(options)), stub_(p4::v1::P4Runtime::NewStub(connected(options_))) {
  becomePrimary();
}

ReplayTarget::~ReplayTarget() {
  streamContext_.TryCancel();
  if (reader_.joinable()) reader_.join();
  stream_->Finish();
}

void ReplayTarget::becomePrimary() {
  stream_ = stub_->StreamChannel(&streamContext_);
  p4::v1::StreamMessageRequest request;
  auto& arbitration = *request.mutable_arbitration();
  arbitration.set_device_id(options_.deviceId);
  arbitration.mutable_election_id()->set_low(options_.electionId);
  if (!options_.role.empty()) arbitration.mutable_role()->set_name(options_.role);
  stream_->Write(request);
  p4::v1::StreamMessageResponse response;
  if (!stream_->Read(&response)) {
    streamContext_.TryCancel();
    const grpc::Status ended = stream_->Finish();
    throw failed("no stream", options_, ended);
  }
  const auto& told = response.arbitration();
  if (told.status().code() != grpc::StatusCode::OK) {
    streamContext_.TryCancel();
    stream_->Finish();
    throw std::runtime_error(fmt::format(
        "another controller of device {} at {} has election id {}; give a higher --election-id, or "
        "end that one",
        options_.deviceId, options_.address, told.election_id().low()));
  }
  reader_ = std::thread([this] {
    p4::v1::StreamMessageResponse dropped;
    while (stream_->Read(&dropped)) {
    }
  });
}

template <typename Request>
void ReplayTarget::complete(Request* request) const {
  request->set_device_id(options_.deviceId);
  request->set_role(options_.role);
  request->mutable_election_id()->set_high(0);
  request->mutable_election_id()->set_low(options_.electionId);
}

grpc::Status ReplayTarget::get(Get::ResponseType parts, Config* config) {
  Get request;
  request.set_device_id(options_.deviceId);
  request.set_response_type(parts);
  p4::v1::GetForwardingPipelineConfigResponse response;
  grpc::ClientContext context;
  limit(context);
  grpc::Status status = stub_->GetForwardingPipelineConfig(&context, request, &response);
  *config = std::move(*response.mutable_config());
  return status;
}

bool ReplayTarget::hasPipeline() {
  Config config;
  const grpc::Status status = get(Get::P4INFO_AND_COOKIE, &config);
  if (status.error_code() == grpc::StatusCode::FAILED_PRECONDITION) return false;
  if (!status.ok()) throw failed("no answer whether there is a pipeline", options_, status);
  return config.has_p4info();
}

bool ReplayTarget::runs(const Config& config) {
  Config running;
  return get(Get::ALL, &running).ok() && MessageDifferencer::Equals(running, config);
}

// A switch may answer a push before its pipeline has come up. One that ran before shows nothing.
bool ReplayTarget::comesUp(const Config& config) {
  const auto last = std::chrono::steady_clock::now() + options_.patienceForPipeline;
  while (!runs(config)) {
    if (std::chrono::steady_clock::now() > last) return false;
    std::this_thread::sleep_for(pollPeriod);
  }
  return true;
}

void ReplayTarget::push(p4::v1::SetForwardingPipelineConfigRequest::Action action,
                        const Config& config) {
  const bool ranBefore = runs(config);
  p4::v1::SetForwardingPipelineConfigRequest request;
  complete(&request);
  request.set_action(action);
  *request.mutable_config() = config;
  p4::v1::SetForwardingPipelineConfigResponse response;
  grpc::ClientContext context;
  limit(context);
  const grpc::Status status = stub_->SetForwardingPipelineConfig(&context, request, &response);
  const bool isLate = status.error_code() == grpc::StatusCode::UNAVAILABLE && !ranBefore;
  if (status.ok() || (isLate && comesUp(config))) return;
  throw failed("the pipeline was refused", options_, status);
}

std::vector<p4::v1::Error> ReplayTarget::write(p4::v1::WriteRequest& request) {
  complete(&request);
  p4::v1::WriteResponse response;
  grpc::ClientContext context;
  limit(context);
  const grpc::Status status = stub_->Write(&context, request, &response);
  if (status.ok()) return {};
  std::vector<p4::v1::Error> errors = errorsOf(status);
  if (errors.size() == static_cast<size_t>(request.updates_size())) return errors;
  throw failed("a Write was refused", options_, status);
}

}  // namespace Cli
