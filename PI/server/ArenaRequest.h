// A request that gRPC parses onto an arena of its own: a Write of 100 updates is some two thousand
// small objects, which are then allocated and let go as a few blocks.
#pragma once

#include <google/protobuf/arena.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include <algorithm>
#include <optional>

namespace pi::server {

template <typename Message>
class ArenaRequest {
 public:
  const Message& message() const { return *message_; }

  // The message to parse `size` bytes into; lasts as long as this object.
  Message* messageOfSize(size_t size) {
    google::protobuf::ArenaOptions options;
    options.start_block_size = std::clamp(size * kGrowth, kMinBlock, kMaxBlock);
    options.max_block_size = kMaxBlock;
    arena_.emplace(options);
    message_ = google::protobuf::Arena::CreateMessage<Message>(&*arena_);
    return message_;
  }

 private:
  // Objects take about so many times the bytes of their serialized form.
  static constexpr size_t kGrowth = 10;
  static constexpr size_t kMinBlock = 1 << 10;
  static constexpr size_t kMaxBlock = 256 << 10;

  std::optional<google::protobuf::Arena> arena_;
  Message* message_ = nullptr;
};

}  // namespace pi::server

namespace grpc {

template <typename Message>
class SerializationTraits<pi::server::ArenaRequest<Message>> {
 public:
  static Status Deserialize(ByteBuffer* buffer, pi::server::ArenaRequest<Message>* request) {
    const size_t size = buffer ? buffer->Length() : 0;
    return GenericDeserialize<ProtoBufferReader, Message>(buffer, request->messageOfSize(size));
  }
};

}  // namespace grpc
