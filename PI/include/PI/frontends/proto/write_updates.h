// The updates of a Write: parsed with their request, or as the bytes that it came in. Most updates
// are checked and encoded straight from their bytes, which takes a third of the time.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// A view: the request or its bytes outlive it. Only read once it is made, by any thread.
class WriteUpdates {
 public:
  WriteUpdates() = default;  // none
  explicit WriteUpdates(const p4::v1::WriteRequest& request)
      : request_(&request), count_(static_cast<size_t>(request.updates_size())) {}

  // Of a serialized request, whose other fields are parsed into `header`. The updates themselves
  // are not looked at. Nothing when the bytes are no WriteRequest, or one that is put together in
  // an unusual way: parse all of it then.
  static std::optional<WriteUpdates> split(std::string_view request, p4::v1::WriteRequest* header);

  size_t count() const { return count_; }
  bool areBytes() const { return request_ == nullptr; }
  // Only if they are bytes, and only of the first `mostKept` updates.
  std::string_view bytes(size_t i) const { return bytes_[i]; }
  // The update as a message, in `room` if it has yet to be parsed. Throws a Refusal
  // (INVALID_ARGUMENT) when the bytes are none.
  const p4::v1::Update& message(size_t i, p4::v1::Update* room) const;

  static constexpr size_t mostKept = 100000;  // a Write may have no more of them

 private:
  const p4::v1::WriteRequest* request_ = nullptr;
  std::vector<std::string_view> bytes_;
  size_t count_ = 0;
};

}  // namespace pi::fe::proto
