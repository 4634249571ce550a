#include "journal/Record.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace Journal {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr uint8_t startsEmpty = 1;
constexpr uint8_t startLacks = 2;
constexpr size_t checksumAt = 4;
constexpr size_t sequenceAt = 8;
constexpr size_t timeAt = 16;
constexpr size_t kindAt = 24;

template <typename Number>
void put(char* place, Number number) {
  std::memcpy(place, &number, sizeof number);
}

template <typename Number>
void append(std::string* bytes, Number number) {
  bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

template <typename Number>
Number get(const char* place) {
  Number number;
  std::memcpy(&number, place, sizeof number);
  return number;
}

void appendText(std::string* bytes, std::string_view text) {
  append(bytes, static_cast<uint32_t>(text.size()));
  bytes->append(text);
}

uint32_t checksumOf(std::string_view bytes) {
  return static_cast<uint32_t>(XXH3_64bits(bytes.data(), bytes.size()));
}

// Takes fields off the front of a body.
class Fields {
 public:
  explicit Fields(std::string_view bytes) : left_(bytes) {}

  template <typename Number>
  Number number() {
    const std::string_view bytes = text(sizeof(Number));
    return isWhole_ ? get<Number>(bytes.data()) : Number{};
  }
  std::string_view text(size_t size) {
    if (size > left_.size()) {
      isWhole_ = false;
      return {};
    }
    const std::string_view taken = left_.substr(0, size);
    left_.remove_prefix(size);
    return taken;
  }
  bool isWhole() const { return isWhole_; }
  bool isEmpty() const { return left_.empty(); }
  std::string_view rest() const { return left_; }

 private:
  std::string_view left_;
  bool isWhole_ = true;
};

}  // namespace

std::optional<Start> startOf(const Record& record) {
  if (record.kind != RecordKind::start) return std::nullopt;
  Fields fields(record.body);
  const auto flags = fields.number<uint8_t>();
  if (!fields.isWhole() || !fields.isEmpty()) return std::nullopt;
  return Start{.isFromEmpty = (flags & startsEmpty) != 0, .isLacking = (flags & startLacks) != 0};
}

std::optional<Request> requestOf(const Record& record) {
  if (!record.isRequest()) return std::nullopt;
  Fields fields(record.body);
  const auto identitySize = fields.number<uint16_t>();
  const auto addressSize = fields.number<uint16_t>();
  Request request;
  request.identity = fields.text(identitySize);
  request.address = fields.text(addressSize);
  if (!fields.isWhole()) return std::nullopt;
  request.bytes = fields.rest();
  return request;
}

std::optional<Outcome> outcomeOf(const Record& record) {
  if (record.kind != RecordKind::outcome) return std::nullopt;
  Fields fields(record.body);
  Outcome outcome;
  outcome.request = fields.number<uint64_t>();
  outcome.code = fields.number<uint32_t>();
  outcome.message = fields.text(fields.number<uint32_t>());
  while (fields.isWhole() && !fields.isEmpty()) {
    Failure& failure = outcome.failures.emplace_back();
    failure.index = fields.number<uint32_t>();
    failure.code = fields.number<uint32_t>();
    failure.message = fields.text(fields.number<uint32_t>());
  }
  return fields.isWhole() ? std::optional(outcome) : std::nullopt;
}

std::optional<Gap> gapOf(const Record& record) {
  if (record.kind != RecordKind::gap) return std::nullopt;
  Fields fields(record.body);
  Gap gap;
  gap.lost = fields.number<uint64_t>();
  gap.reason = static_cast<GapReason>(fields.number<uint8_t>());
  return fields.isWhole() && fields.isEmpty() ? std::optional(gap) : std::nullopt;
}

Draft Draft::start(const Start& start) {
  Draft draft(RecordKind::start);
  const int flags = (start.isFromEmpty ? startsEmpty : 0) | (start.isLacking ? startLacks : 0);
  append(&draft.front_, static_cast<uint8_t>(flags));
  return draft;
}

Draft Draft::request(RecordKind kind, std::string_view identity, std::string_view address,
                     Pieces pieces) {
  constexpr size_t longest = std::numeric_limits<uint16_t>::max();
  identity = identity.substr(0, longest);
  address = address.substr(0, longest);
  Draft draft(kind);
  draft.front_.reserve(4 + identity.size() + address.size());
  append(&draft.front_, static_cast<uint16_t>(identity.size()));
  append(&draft.front_, static_cast<uint16_t>(address.size()));
  draft.front_.append(identity).append(address);
  draft.pieces_ = pieces;
  for (const std::string_view piece : pieces) draft.piecesBytes_ += piece.size();
  return draft;
}

Draft Draft::outcome(const Outcome& outcome) {
  Draft draft(RecordKind::outcome);
  append(&draft.front_, outcome.request);
  append(&draft.front_, outcome.code);
  appendText(&draft.front_, outcome.message);
  for (const Failure& failure : outcome.failures) {
    append(&draft.front_, failure.index);
    append(&draft.front_, failure.code);
    appendText(&draft.front_, failure.message);
  }
  return draft;
}

Draft Draft::gap(const Gap& gap) {
  Draft draft(RecordKind::gap);
  append(&draft.front_, gap.lost);
  append(&draft.front_, gap.reason);
  return draft;
}

void Draft::write(uint64_t sequence, Time time, char* bytes) const {
  put(bytes, static_cast<uint32_t>(size() - sumBytes));
  put(bytes + checksumAt, uint32_t{0});
  put(bytes + sequenceAt, sequence);
  put(bytes + timeAt, static_cast<int64_t>(time.time_since_epoch().count()));
  put(bytes + kindAt, kind_);
  char* place = std::copy(front_.begin(), front_.end(), bytes + headBytes);
  for (const std::string_view piece : pieces_) place = std::copy(piece.begin(), piece.end(), place);
}

size_t recordBytes(std::string_view bytes) {
  if (bytes.size() < headBytes) return 0;
  const size_t size = sumBytes + get<uint32_t>(bytes.data());
  return size < headBytes || size > bytes.size() ? 0 : size;
}

uint64_t sequenceOf(std::string_view bytes) { return get<uint64_t>(bytes.data() + sequenceAt); }

void seal(std::span<char> record) {
  put(record.data() + checksumAt, checksumOf({record.data() + sumBytes, record.size() - sumBytes}));
}

std::optional<Record> recordAt(std::string_view bytes) {
  const size_t size = recordBytes(bytes);
  if (size == 0) return std::nullopt;
  const std::string_view summed = bytes.substr(sumBytes, size - sumBytes);
  if (get<uint32_t>(bytes.data() + checksumAt) != checksumOf(summed)) return std::nullopt;
  const auto kind = get<uint8_t>(bytes.data() + kindAt);
  if (kind < static_cast<uint8_t>(RecordKind::start) ||
      kind > static_cast<uint8_t>(RecordKind::gap)) {
    return std::nullopt;
  }
  Record record;
  record.kind = static_cast<RecordKind>(kind);
  record.sequence = sequenceOf(bytes);
  record.time = Time(std::chrono::nanoseconds(get<int64_t>(bytes.data() + timeAt)));
  record.body = bytes.substr(headBytes, size - headBytes);
  return record;
}

}  // namespace Journal
