// The records of a journal of Writes, and their bytes.
//
// Packed, little-endian:  size u32 | checksum u32 | sequence u64 | time i64 | kind u8 | body
// `size` counts the bytes behind the checksum, which is the lower half of their XXH3. Sequences
// rise from record to record, also over starts of the agent. Bodies:
//   start              flags u8: 1 no entries, 2 Writes are missing; a process began to write
//   write, push,
//   pipeline           identitySize u16 | addressSize u16 | identity | address | request
//   outcome            request u64 | code u32 | messageSize u32 | message, then for each failed
//                      update: index u32 | code u32 | messageSize u32 | message
//   gap                lost u64 | reason u8
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Journal {

enum class RecordKind : uint8_t {
  start = 1,
  write = 2,     // a p4.v1.WriteRequest whose turn has come
  push = 3,      // a p4.v1.SetForwardingPipelineConfigRequest of a controller
  pipeline = 4,  // the same, of the agent itself: the pipeline that runs from here on
  outcome = 5,   // of a former write, push or pipeline
  gap = 6,       // records are missing here
};

enum class GapReason : uint8_t { queueFull = 1, noRoom = 2, tooLarge = 3 };

constexpr size_t headBytes = 8 + 8 + 8 + 1;   // with size and checksum
constexpr size_t sumBytes = 8;                // size and checksum
constexpr size_t mostRecordBytes = 80 << 20;  // more than any message that the server takes

using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

// The body borrows the bytes that it was read from.
struct Record {
  RecordKind kind = RecordKind::start;
  uint64_t sequence = 0;
  Time time;
  std::string_view body;

  bool isRequest() const {
    return kind == RecordKind::write || kind == RecordKind::push || kind == RecordKind::pipeline;
  }
};

struct Request {
  std::string_view identity;  // of the caller; empty where it is not known
  std::string_view address;
  std::string_view bytes;  // of the message, as the caller sent it
};

struct Failure {
  uint32_t index = 0;  // of the update, from 0
  uint32_t code = 0;   // of gRPC
  std::string_view message;
};

struct Outcome {
  uint64_t request = 0;  // its sequence
  uint32_t code = 0;     // of gRPC; 0: all of it was done
  std::string_view message;
  std::vector<Failure> failures;  // empty with a code: the call was refused as a whole
};

struct Gap {
  uint64_t lost = 0;  // requests and outcomes
  GapReason reason = GapReason::queueFull;
};

struct Start {
  bool isFromEmpty = false;  // the switch had no entries
  bool isLacking = false;    // Writes before it may be in no record, since the journal was off
};

// Empty when the body is none of that kind: cut short, or running long.
std::optional<Start> startOf(const Record& record);
std::optional<Request> requestOf(const Record& record);
std::optional<Outcome> outcomeOf(const Record& record);
std::optional<Gap> gapOf(const Record& record);

// A record that is to be written: its bytes, but for the head. Borrows all that it is given.
class Draft {
 public:
  using Pieces = std::span<const std::string_view>;

  static Draft start(const Start& start = {});
  // Identity and address are cut at 65,535 bytes; `pieces` are the message's bytes, in order.
  static Draft request(RecordKind kind, std::string_view identity, std::string_view address,
                       Pieces pieces);
  static Draft outcome(const Outcome& outcome);
  static Draft gap(const Gap& gap);

  RecordKind kind() const { return kind_; }
  size_t size() const { return headBytes + front_.size() + piecesBytes_; }
  // Writes size() bytes, without the checksum: see seal().
  void write(uint64_t sequence, Time time, char* bytes) const;

 private:
  explicit Draft(RecordKind kind) : kind_(kind) {}

  RecordKind kind_;
  std::string front_;
  Pieces pieces_;
  size_t piecesBytes_ = 0;
};

// The size of the record at the begin of the bytes, with its head; 0 when they hold no whole head,
// or more than all of them.
size_t recordBytes(std::string_view bytes);
// Its sequence; the bytes hold a whole head.
uint64_t sequenceOf(std::string_view bytes);
// Sets the checksum of a record that lacks it.
void seal(std::span<char> record);
// The record at the begin of the bytes; empty when it is not whole, its checksum is wrong or its
// kind unknown.
std::optional<Record> recordAt(std::string_view bytes);

}  // namespace Journal
