// Messages as they come in, before their sender is known.
#pragma once

#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include <cstddef>

#include "PI/server/Limits.h"

namespace pi::server {

// A request that is not parsed yet: its call decides how large it may be, and when there is memory
// for it.
struct ReceivedMessage {
  mutable grpc::ByteBuffer bytes;  // the call's, which takes them once
  size_t size() const { return bytes.Valid() ? bytes.Length() : 0; }
};

// A message of a stream, which is parsed unless it is too large.
template <typename Message>
struct StreamedMessage {
  Message message;
  size_t size = 0;
  bool isTooLarge() const { return size > kMaxMessageBytes; }
};

}  // namespace pi::server

namespace grpc {

template <>
class SerializationTraits<pi::server::ReceivedMessage> {
 public:
  static Status Deserialize(ByteBuffer* buffer, pi::server::ReceivedMessage* received) {
    if (buffer) received->bytes.Swap(buffer);
    return Status::OK;
  }
};

template <typename Message>
class SerializationTraits<pi::server::StreamedMessage<Message>> {
 public:
  static Status Deserialize(ByteBuffer* buffer, pi::server::StreamedMessage<Message>* streamed) {
    streamed->size = buffer && buffer->Valid() ? buffer->Length() : 0;
    if (!streamed->isTooLarge()) {
      return GenericDeserialize<ProtoBufferReader, Message>(buffer, &streamed->message);
    }
    buffer->Clear();
    return Status::OK;
  }
};

}  // namespace grpc
