// The messages on the doorbell socket, one to a packet. All begin with kind u8 and version u8;
// numbers are little-endian. Every decode returns nothing for a message of another kind, of an
// unknown version, cut short, or too long. The agent speaks the version that a subscriber attaches
// with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/lattice/doorbell/Question.h"
#include "platform/lattice/doorbell/Report.h"
#include "platform/lattice/records/StoreLayout.h"

namespace Lattice {

inline constexpr uint8_t doorbellVersion = 2;
inline constexpr uint8_t oldestDoorbellVersion = 1;  // without ProgrammedMessage
inline constexpr size_t maxMessageBytes = 32 * 1024;
inline constexpr size_t maxReportsPerMessage = 512;
inline constexpr size_t maxReportText = 1024;  // longer ones are cut
inline constexpr size_t maxSubscriberName = 64;

enum class MessageKind : uint8_t {
  attach = 1,
  attached,
  refused,
  ring,
  reports,
  inStep,
  programmed,
  notice,
  question,
  answer
};

// A subscriber's first message: the state it knows.  sequence u64 | identity | name | flags u8
// A message without flags sets none; it is sent so, since agents of before refuse the byte.
struct AttachMessage {
  static constexpr uint8_t appliesAtOnce = 1;     // see Subscriber::appliesAtOnceIs()
  static constexpr uint8_t answersQuestions = 2;  // see Subscriber::answersQuestionsIs()
  static constexpr uint8_t tellsLastHits = 4;     // see Subscriber::tellsLastHitsIs()
  static constexpr uint8_t learnsTypes = 8;       // see Subscriber::learnsTypesIs()
  uint64_t sequence = 0;
  StoreIdentity identity{};
  std::string_view name;
  uint8_t flags = 0;
  std::string encode() const;
  static std::optional<AttachMessage> decode(std::string_view message);
};

// The agent's response: the tables are open to the subscriber.  identity
struct AttachedMessage {
  StoreIdentity identity{};
  std::string encode(uint8_t version = doorbellVersion) const;
  static std::optional<AttachedMessage> decode(std::string_view message);
};

// Or the reason for a refusal; the connection then ends.  text
struct RefusedMessage {
  std::string_view reason;
  std::string encode(uint8_t version = doorbellVersion) const;
  static std::optional<RefusedMessage> decode(std::string_view message);
};

// From the agent: there are changes up to `sequence`.
struct RingMessage {
  uint64_t sequence = 0;
  std::string encode(uint8_t version = doorbellVersion) const;
  static std::optional<RingMessage> decode(std::string_view message);
};

// From a subscriber: it has received all changes up to `receivedUpTo`, and reports on some.
// receivedUpTo u64 | flags u8 | count u16 | per report: entryHandle u64 | sequence u64 |
// errorCode u16 | textSize u16 | text
struct ReportsMessage {
  static constexpr uint8_t takingSnapshot = 1;
  uint64_t receivedUpTo = 0;
  uint8_t flags = 0;
  uint16_t count = 0;
  std::string_view packed;
};

struct PackedReport {
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
  uint16_t errorCode = 0;
  std::string_view text;
};

// Gathers reports into one message.
class ReportsWriter {
 public:
  ReportsWriter() { clear(); }
  size_t count() const { return count_; }
  bool full() const {
    return count_ == maxReportsPerMessage || bytes_.size() + 20 + maxReportText > maxMessageBytes;
  }
  void add(const PackedReport& report);                      // unless full()
  std::string finish(uint64_t receivedUpTo, uint8_t flags);  // clears, too
  void clear();

 private:
  std::string bytes_;
  uint16_t count_ = 0;
};

std::optional<ReportsMessage> decodeReports(std::string_view message);
// Visits the reports of a message from decodeReports(), in order; false when the bytes hold fewer
// reports than the message says.
bool eachReport(const ReportsMessage& message,
                const std::function<void(const PackedReport&)>& each);

// From a subscriber that took a snapshot and has reported on all of it.  sequence u64
struct InStepMessage {
  uint64_t sequence = 0;
  std::string encode() const;
  static std::optional<InStepMessage> decode(std::string_view message);
};

// From a subscriber: each change up to `sequence` that it was to program is programmed, but for
// those of which it has reported the failure before.  sequence u64
struct ProgrammedMessage {
  uint64_t sequence = 0;
  std::string encode() const;
  static std::optional<ProgrammedMessage> decode(std::string_view message);
};

// From a subscriber, on its own account.  kind u8 | digest: id u32, message (u32 size, bytes) |
// idle entry: entryHandle u64
struct NoticeMessage {
  Notice notice;
  std::string encode() const;
  static std::optional<NoticeMessage> decode(std::string_view message);
};

// From the agent, to a subscriber that answers questions.  id u64 | kind u8 | pipeline: push u64 |
// register cells: register id u32, first cell u64, number of cells u32 | counts: nothing | last
// hits: table id u32, number of entries u16, entry handles u64. Of an unknown kind the rest is
// passed over: later agents may have other questions.
struct QuestionMessage {
  uint64_t id = 0;
  Question question;
  std::string encode() const;
  static std::optional<QuestionMessage> decode(std::string_view message);
};

// From the subscriber.  id u64 | errorCode u16 | bytes (u32 size, bytes)
struct AnswerMessage {
  static constexpr size_t mostBytes = maxMessageBytes - 64;
  uint64_t id = 0;
  uint16_t errorCode = 0;
  std::string_view bytes;
  std::string encode() const;
  static std::optional<AnswerMessage> decode(std::string_view message);
};

std::optional<MessageKind> messageKind(std::string_view message);  // of a known version
uint8_t messageVersion(std::string_view message);                  // 0: unknown
// Whether it is an attach message of an unknown version: its sender gets a refusal in words.
bool isForeignAttach(std::string_view message);

}  // namespace Lattice
