// A request parsed onto an arena of its own: its thousands of small objects are then allocated and
// let go as a few blocks. Writes are read in another way (WriteMessage.h).
#pragma once

#include <google/protobuf/arena.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include <algorithm>
#include <optional>

namespace pi::server {

template <typename Message>
class ArenaRequest {
 public:
  const Message& message() const { return *message_; }

  // False when the bytes are no such message. Once; the message lasts as long as this object.
  bool parse(grpc::ByteBuffer* bytes, size_t size) {
    Message* const message = messageOfSize(size);
    if (size == 0) return true;
    grpc::ProtoBufferReader reader(bytes);
    return reader.status().ok() && message->ParseFromZeroCopyStream(&reader);
  }

 private:
  Message* messageOfSize(size_t size) {
    google::protobuf::ArenaOptions options;
    options.start_block_size = std::clamp(size * kGrowth, kMinBlock, kMaxBlock);
    options.max_block_size = kMaxBlock;
    arena_.emplace(options);
    message_ = google::protobuf::Arena::CreateMessage<Message>(&*arena_);
    return message_;
  }

  // Objects take about so many times the bytes of their serialized form.
  static constexpr size_t kGrowth = 10;
  static constexpr size_t kMinBlock = 1 << 10;
  static constexpr size_t kMaxBlock = 256 << 10;

  std::optional<google::protobuf::Arena> arena_;
  Message* message_ = nullptr;
};

}  // namespace pi::server
