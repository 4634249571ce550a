// A Write as it came in, with its updates left in their bytes.
#pragma once

#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <string_view>

#include "PI/frontends/proto/write_updates.h"

namespace pi::server {

class WriteMessage {
 public:
  // All but the updates; they may be missing in it.
  const p4::v1::WriteRequest& message() const { return message_; }
  const fe::proto::WriteUpdates& updates() const { return updates_; }

  // False when the bytes are no WriteRequest. Damage within an update is found by its check, later.
  // Call it once; the message lasts as long as this object.
  bool parse(grpc::ByteBuffer* buffer, size_t size) {
    if (size == 0) return true;
    if (!buffer->DumpToSingleSlice(&bytes_).ok()) return false;
    const std::string_view bytes(reinterpret_cast<const char*>(bytes_.begin()), bytes_.size());
    if (auto updates = fe::proto::WriteUpdates::split(bytes, &message_)) {
      updates_ = std::move(*updates);
      return true;
    }
    if (!message_.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return false;
    updates_ = fe::proto::WriteUpdates(message_);
    return true;
  }

 private:
  grpc::Slice bytes_;
  p4::v1::WriteRequest message_;
  fe::proto::WriteUpdates updates_;
};

}  // namespace pi::server
