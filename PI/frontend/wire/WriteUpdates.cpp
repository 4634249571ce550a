// Takes a serialized WriteRequest apart.
#include "PI/frontends/proto/write_updates.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/wire/FieldReader.h"

namespace pi::fe::proto {

namespace {
constexpr uint32_t kUpdates = p4::v1::WriteRequest::kUpdatesFieldNumber;
}

std::optional<WriteUpdates> WriteUpdates::split(std::string_view request,
                                                p4::v1::WriteRequest* header) {
  WriteUpdates updates;
  FieldReader fields(request, 1u << kUpdates);
  std::string others;
  const char* begin = request.data();
  while (fields.next()) {
    const uint32_t tag = fields.tag();
    const bool isNumber = tag == FieldReader::numberTag(tag >> 3);
    if (!isNumber && tag != FieldReader::bytesTag(tag >> 3)) return std::nullopt;
    std::string_view bytes;
    if (isNumber) {
      fields.number();
    } else {
      bytes = fields.bytes();
    }
    const char* const end = fields.at();
    if (tag == FieldReader::bytesTag(kUpdates)) {
      if (updates.count_++ < mostKept) updates.bytes_.push_back(bytes);
    } else {
      others.append(begin, end);
    }
    begin = end;
  }
  if (!fields.wasUsual() || !header->ParseFromString(others)) return std::nullopt;
  return updates;
}

const p4::v1::Update& WriteUpdates::message(size_t i, p4::v1::Update* room) const {
  if (request_ != nullptr) return request_->updates(static_cast<int>(i));
  const std::string_view from = bytes_[i];
  if (room->ParseFromArray(from.data(), static_cast<int>(from.size()))) return *room;
  refuse(code::invalidArgument, "the message is no p4.v1.WriteRequest: its update ", i,
         " is damaged");
}

}  // namespace pi::fe::proto
