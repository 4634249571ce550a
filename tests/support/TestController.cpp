// See TestController.h.
#include "tests/support/TestController.h"

#include <fmt/format.h>

#include <ostream>

#include "google/rpc/status.pb.h"
#include "tests/support/Pipeline.h"

namespace TestSupport {
namespace {

// A channel of its own that connects again at once, since tests restart the server.
std::shared_ptr<grpc::Channel> newChannel(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 20);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 2000);  // also how long a handshake may take
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, 16 << 20);  // an error an update
  arguments.SetMaxReceiveMessageSize(-1);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

void setDeadline(grpc::ClientContext& context, std::chrono::milliseconds timeout) {
  context.set_deadline(std::chrono::system_clock::now() + timeout);
}

std::vector<p4::v1::Error> updateErrors(const grpc::Status& status) {
  google::rpc::Status details;
  std::vector<p4::v1::Error> errors;
  if (!details.ParseFromString(status.error_details())) return errors;
  for (const auto& detail : details.details()) detail.UnpackTo(&errors.emplace_back());
  return errors;
}

// An entity with the one member of its oneof that `mutableOf` makes.
template <typename Thing>
p4::v1::Entity entityWith(const Thing& thing, Thing* (p4::v1::Entity::*mutableOf)()) {
  p4::v1::Entity entity;
  *(entity.*mutableOf)() = thing;
  return entity;
}

}  // namespace

p4::v1::Entity entityOf(const p4::v1::TableEntry& entry) {
  return entityWith(entry, &p4::v1::Entity::mutable_table_entry);
}
p4::v1::Entity entityOf(const p4::v1::ActionProfileMember& member) {
  return entityWith(member, &p4::v1::Entity::mutable_action_profile_member);
}
p4::v1::Entity entityOf(const p4::v1::ActionProfileGroup& group) {
  return entityWith(group, &p4::v1::Entity::mutable_action_profile_group);
}
p4::v1::Entity entityOf(const p4::v1::DirectCounterEntry& counter) {
  return entityWith(counter, &p4::v1::Entity::mutable_direct_counter_entry);
}
p4::v1::Entity entityOf(const p4::v1::DirectMeterEntry& meter) {
  return entityWith(meter, &p4::v1::Entity::mutable_direct_meter_entry);
}

p4::v1::Update updateOf(p4::v1::Update::Type type, const p4::v1::Entity& entity) {
  p4::v1::Update update;
  update.set_type(type);
  *update.mutable_entity() = entity;
  return update;
}

p4::v1::PacketOut packetOut(uint32_t port, std::string payload, bool submitToIngress) {
  p4::v1::PacketOut packet;
  const auto metadata = [&](uint32_t id, uint64_t value) {
    auto& field = *packet.add_metadata();
    field.set_metadata_id(id);
    field.set_value(canonicalBytes(value));
  };
  metadata(1, port);
  metadata(2, submitToIngress ? 1 : 0);
  packet.set_payload(std::move(payload));
  return packet;
}

grpc::StatusCode WriteOutcome::code(size_t update) const {
  if (update < errors.size()) {
    return static_cast<grpc::StatusCode>(errors[update].canonical_code());
  }
  return status.error_code();
}

void PrintTo(const WriteOutcome& outcome, std::ostream* out) {
  *out << fmt::format("code {} {}", static_cast<int>(outcome.status.error_code()),
                      outcome.status.error_message());
  for (size_t i = 0; i < outcome.errors.size() && i < 20; ++i) {
    *out << fmt::format("\n  update {}: code {} {}", i, outcome.errors[i].canonical_code(),
                        outcome.errors[i].message());
  }
}

TestController::TestController(const std::string& address, uint64_t electionIdLow,
                               uint64_t deviceId)
    : deviceId_(deviceId),
      channel_(newChannel(address)),
      stub_(p4::v1::P4Runtime::NewStub(channel_)),
      electionIdLow_(electionIdLow) {}

TestController::~TestController() { disconnect(); }

bool TestController::waitConnected(std::chrono::milliseconds timeout) {
  return channel_->WaitForConnected(std::chrono::system_clock::now() + timeout);
}

void TestController::disconnect() {
  readsIs(true);
  if (context_) context_->TryCancel();
  if (follower_.joinable()) follower_.join();
  stream_.reset();
  context_.reset();
  notices_.clear();
  streamErrors_.clear();
}

void TestController::openStream() {
  if (stream_) return;
  context_ = std::make_unique<grpc::ClientContext>();
  stream_ = stub_->StreamChannel(context_.get());
  follower_ = std::thread([this] { followStream(); });
}

grpc::StatusCode TestController::arbitrate() {
  openStream();
  p4::v1::StreamMessageRequest request;
  auto& update = *request.mutable_arbitration();
  update.set_device_id(deviceId_);
  update.mutable_election_id()->set_low(electionIdLow_);
  stream_->Write(request);
  const auto notice = nextNotice();
  return notice.value_or(grpc::StatusCode::DEADLINE_EXCEEDED);
}

std::optional<grpc::StatusCode> TestController::arbitrationNotice() { return nextNotice(); }

std::optional<grpc::StatusCode> TestController::nextNotice() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, patience, [this] { return !notices_.empty(); })) return {};
  const grpc::StatusCode code = notices_.front();
  notices_.pop_front();
  return code;
}

bool TestController::send(p4::v1::PacketOut packet) {
  p4::v1::StreamMessageRequest request;
  *request.mutable_packet() = std::move(packet);
  return send(request);
}

bool TestController::send(const p4::v1::StreamMessageRequest& request) {
  openStream();
  return stream_->Write(request);
}

void TestController::onPacketInIs(std::function<void(const p4::v1::PacketIn&)> packetIn) {
  packetIn_ = std::move(packetIn);
}

std::optional<p4::v1::StreamError> TestController::streamError() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, patience, [this] { return !streamErrors_.empty(); })) return {};
  p4::v1::StreamError error = std::move(streamErrors_.front());
  streamErrors_.pop_front();
  return error;
}

void TestController::tell(grpc::StatusCode code) {
  const std::lock_guard lock(mutex_);
  notices_.push_back(code);
  changed_.notify_all();
}

void TestController::handle(const p4::v1::StreamMessageResponse& response) {
  if (response.has_packet()) {
    if (packetIn_) packetIn_(response.packet());
  } else if (response.has_arbitration()) {
    tell(static_cast<grpc::StatusCode>(response.arbitration().status().code()));
  } else if (response.has_error()) {
    ++streamErrorCount_;
    const std::lock_guard lock(mutex_);
    streamErrors_.push_back(response.error());
    changed_.notify_all();
  } else if (notice_) {
    notice_(response);
  }
}

void TestController::onNoticeIs(std::function<void(const p4::v1::StreamMessageResponse&)> notice) {
  notice_ = std::move(notice);
}

void TestController::readsIs(bool reads) {
  const std::lock_guard lock(mutex_);
  reads_ = reads;
  changed_.notify_all();
}

void TestController::waitUntilReads() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return reads_; });
}

// The stream's end stands in the queue like a message, so that nobody waits for one in vain.
void TestController::followStream() {
  p4::v1::StreamMessageResponse response;
  for (waitUntilReads(); stream_->Read(&response); waitUntilReads()) handle(response);
  tell(stream_->Finish().error_code());
}

p4::v1::WriteRequest TestController::writeRequest(
    const std::vector<p4::v1::Update>& updates) const {
  p4::v1::WriteRequest request;
  request.set_device_id(deviceId_);
  request.mutable_election_id()->set_low(electionIdLow_);
  request.mutable_updates()->Assign(updates.begin(), updates.end());
  return request;
}

WriteOutcome TestController::write(const std::vector<p4::v1::Update>& updates,
                                   std::chrono::milliseconds timeout) {
  return write(writeRequest(updates), timeout);
}

WriteOutcome TestController::write(const p4::v1::WriteRequest& request,
                                   std::chrono::milliseconds timeout) {
  grpc::ClientContext context;
  setDeadline(context, timeout);
  p4::v1::WriteResponse response;
  WriteOutcome outcome;
  outcome.status = stub_->Write(&context, request, &response);
  outcome.errors = updateErrors(outcome.status);
  return outcome;
}

ReadOutcome TestController::read(const p4::v1::TableEntry& query,
                                 std::chrono::milliseconds timeout) {
  EntitiesOutcome found = read(std::vector{entityOf(query)}, timeout);
  ReadOutcome outcome{.status = found.status, .entries = {}};
  for (auto& entity : found.entities) {
    outcome.entries.push_back(std::move(*entity.mutable_table_entry()));
  }
  return outcome;
}

EntitiesOutcome TestController::read(const std::vector<p4::v1::Entity>& queries,
                                     std::chrono::milliseconds timeout) {
  grpc::ClientContext context;
  setDeadline(context, timeout);
  p4::v1::ReadRequest request;
  request.set_device_id(deviceId_);
  request.mutable_entities()->Assign(queries.begin(), queries.end());
  const auto reader = stub_->Read(&context, request);
  EntitiesOutcome outcome;
  p4::v1::ReadResponse response;
  while (reader->Read(&response)) {
    for (auto& entity : *response.mutable_entities()) outcome.entities.push_back(std::move(entity));
  }
  outcome.status = reader->Finish();
  return outcome;
}

ReadOutcome TestController::readTable(uint32_t tableId) {
  p4::v1::TableEntry query;
  query.set_table_id(tableId);
  return read(query);
}

}  // namespace TestSupport
