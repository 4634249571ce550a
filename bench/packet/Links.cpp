// See Links.h.
#include "bench/packet/Links.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "tests/support/Pipeline.h"

namespace Bench {
namespace {

using TestSupport::PacketEndpoint;
using TestSupport::TestController;

constexpr uint32_t port = 1;

std::string_view textOf(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void sendOut(TestController& controller, std::span<const std::string_view> packets) {
  for (const std::string_view packet : packets) {
    controller.send(TestSupport::packetOut(port, std::string(packet)));
  }
}

}  // namespace

BarePath::BarePath(const TestSupport::VethPair& link)
    : sender_(link.name()),
      receiver_(link.peer(), [this](auto packet) { arrived(textOf(packet)); }) {}

// Replies to the arbitration as an agent would, and hands packets on.
class GrpcPath::Service final : public p4::v1::P4Runtime::Service {
 public:
  explicit Service(GrpcPath& path) : path_(path) {}

  using Stream =
      grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, p4::v1::StreamMessageRequest>;
  grpc::Status StreamChannel(grpc::ServerContext*, Stream* stream) override {
    stream_ = stream;
    p4::v1::StreamMessageRequest request;
    while (stream->Read(&request)) {
      if (request.has_packet()) {
        path_.arrived(request.packet().payload());
        continue;
      }
      p4::v1::StreamMessageResponse response;
      *response.mutable_arbitration() = request.arbitration();
      write(response);
    }
    return grpc::Status::OK;
  }

  void send(std::string_view packet) {
    p4::v1::StreamMessageResponse response;
    auto& in = *response.mutable_packet();
    for (uint32_t id : {1, 2}) {
      auto& field = *in.add_metadata();
      field.set_metadata_id(id);
      field.set_value("\1");
    }
    in.set_payload(std::string(packet));
    write(response);
  }

 private:
  // The stream's own thread may still be writing when its client already has the message.
  void write(const p4::v1::StreamMessageResponse& response) {
    const std::lock_guard lock(writing_);
    stream_->Write(response);
  }

  GrpcPath& path_;
  Stream* stream_ = nullptr;
  std::mutex writing_;
};

GrpcPath::GrpcPath(Direction direction)
    : direction_(direction), service_(std::make_unique<Service>(*this)) {
  grpc::ServerBuilder builder;
  int chosen = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &chosen);
  builder.RegisterService(service_.get());
  server_ = builder.BuildAndStart();
  if (!server_) throw std::runtime_error("cannot listen on 127.0.0.1");
  client_ = std::make_unique<TestController>(fmt::format("127.0.0.1:{}", chosen), 1);
  client_->onPacketInIs([this](const p4::v1::PacketIn& packet) { arrived(packet.payload()); });
  if (!client_->becomePrimary()) throw std::runtime_error("no stream to 127.0.0.1");
}

GrpcPath::~GrpcPath() {
  client_->disconnect();
  server_->Shutdown();
}

void GrpcPath::send(std::span<const std::string_view> packets) {
  if (direction_ == Direction::out) return sendOut(*client_, packets);
  for (const std::string_view packet : packets) service_->send(packet);
}

PacketSwitch::PacketSwitch(const std::string& pipelineFile, const std::string& device)
    : agent_({.stateDirectory = directory_.file("state"),
              .pipelineFile = pipelineFile,
              .ports = {{port, device}}}) {
  if (!agent_.startServing()) throw std::runtime_error("no agent:\n" + agent_.output());
  controller_ = std::make_unique<TestController>(agent_.address(), 1);
  controller_->onPacketInIs([this](const p4::v1::PacketIn& packet) {
    if (packetIn) packetIn(packet);
  });
  if (!controller_->becomePrimary()) throw std::runtime_error("not primary:\n" + agent_.output());
}

Cpu PacketSwitch::cpu() const {
  std::ifstream file(fmt::format("/proc/{}/stat", agent_.pid()));
  std::istringstream words(std::string(std::istreambuf_iterator<char>(file), {}));
  std::string word;
  for (int i = 0; i < 13; ++i) words >> word;  // the name of our command has no blanks
  double user = 0;
  double system = 0;
  words >> user >> system;
  const double tick = 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
  return {.user = Duration(user * tick), .system = Duration(system * tick)};
}

PacketOutPath::PacketOutPath(PacketSwitch& agent, const std::string& farEnd)
    : switch_(agent), receiver_(farEnd, [this](auto packet) { arrived(textOf(packet)); }) {}

void PacketOutPath::send(std::span<const std::string_view> packets) {
  sendOut(switch_.controller(), packets);
}

PacketInPath::PacketInPath(PacketSwitch& agent, const std::string& farEnd)
    : switch_(agent), sender_(farEnd) {
  switch_.packetIn = [this](const p4::v1::PacketIn& packet) { arrived(packet.payload()); };
}

PacketInPath::~PacketInPath() { switch_.packetIn = nullptr; }

void PacketInPath::send(std::span<const std::string_view> packets) {
  const std::string punted = std::string("\0\0\0\1\1", 5).append(packets.front());  // all are equal
  const std::vector<std::string_view> same(packets.size(), punted);
  sender_.send(same);
}

}  // namespace Bench
