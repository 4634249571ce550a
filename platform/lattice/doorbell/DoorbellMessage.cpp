#include "platform/lattice/doorbell/DoorbellMessage.h"

#include <algorithm>

#include "platform/lattice/records/Packing.h"

namespace Lattice {
namespace {

std::string begun(MessageKind kind, uint8_t version = doorbellVersion) {
  return {static_cast<char>(kind), static_cast<char>(version)};
}

// The bytes after kind and version, when the message is of this kind.
std::optional<Unpacker> bodyOf(std::string_view message, MessageKind kind) {
  if (messageKind(message) != kind) return std::nullopt;
  return Unpacker(message.substr(2));
}

StoreIdentity takeIdentity(Unpacker& from) {
  StoreIdentity identity{};
  const std::string_view bytes = from.takeBytes(identity.size());
  if (bytes.size() == identity.size()) std::memcpy(identity.data(), bytes.data(), bytes.size());
  return identity;
}

std::string numberMessage(MessageKind kind, uint64_t number, uint8_t version = doorbellVersion) {
  std::string bytes = begun(kind, version);
  append(bytes, number);
  return bytes;
}

std::optional<uint64_t> numberOf(std::string_view message, MessageKind kind) {
  auto body = bodyOf(message, kind);
  if (!body) return std::nullopt;
  const auto number = body->take<uint64_t>();
  return body->finished() ? std::optional(number) : std::nullopt;
}

void appendEntries(const Question& question, std::string& bytes) {
  const size_t count = std::min(question.entryHandles.size(), Question::mostEntries);
  append(bytes, question.tableId);
  append(bytes, static_cast<uint16_t>(count));
  for (size_t i = 0; i < count; ++i) append(bytes, question.entryHandles[i]);
}

bool takeEntries(Unpacker& from, Question* question) {
  question->tableId = from.take<uint32_t>();
  const auto count = from.take<uint16_t>();
  if (count > Question::mostEntries) return false;
  for (unsigned i = 0; i < count && !from.bad(); ++i) {
    question->entryHandles.push_back(from.take<uint64_t>());
  }
  return true;
}

constexpr size_t reportsHead = 2 + 8 + 1 + 2;

}  // namespace

uint8_t messageVersion(std::string_view message) {
  if (message.size() < 2) return 0;
  const auto version = static_cast<uint8_t>(message[1]);
  return version >= oldestDoorbellVersion && version <= doorbellVersion ? version : 0;
}

std::optional<MessageKind> messageKind(std::string_view message) {
  const uint8_t version = messageVersion(message);
  if (version == 0) return std::nullopt;
  const auto last = version == 1 ? MessageKind::inStep : MessageKind::answer;
  const auto kind = static_cast<MessageKind>(message[0]);
  if (kind < MessageKind::attach || kind > last) return std::nullopt;
  return kind;
}

bool isForeignAttach(std::string_view message) {
  return message.size() >= 2 && message[0] == static_cast<char>(MessageKind::attach) &&
         messageVersion(message) == 0;
}

std::string AttachMessage::encode() const {
  std::string bytes = begun(MessageKind::attach);
  append(bytes, sequence);
  bytes.append(identity.data(), identity.size());
  appendText(bytes, name.substr(0, maxSubscriberName));
  if (flags != 0) append(bytes, flags);
  return bytes;
}

std::optional<AttachMessage> AttachMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::attach);
  if (!body) return std::nullopt;
  AttachMessage attach;
  attach.sequence = body->take<uint64_t>();
  attach.identity = takeIdentity(*body);
  attach.name = body->takeText();
  if (!body->bad() && !body->finished()) attach.flags = body->take<uint8_t>();
  constexpr uint8_t known = AttachMessage::appliesAtOnce | AttachMessage::answersQuestions |
                            AttachMessage::tellsLastHits | AttachMessage::learnsTypes;
  const bool isKnown = (attach.flags & ~known) == 0;
  if (!body->finished() || !isKnown || attach.name.size() > maxSubscriberName) return std::nullopt;
  return attach;
}

std::string AttachedMessage::encode(uint8_t version) const {
  return begun(MessageKind::attached, version).append(identity.data(), identity.size());
}

std::optional<AttachedMessage> AttachedMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::attached);
  if (!body) return std::nullopt;
  const AttachedMessage attached{takeIdentity(*body)};
  return body->finished() ? std::optional(attached) : std::nullopt;
}

std::string RefusedMessage::encode(uint8_t version) const {
  std::string bytes = begun(MessageKind::refused, version);
  appendText(bytes, reason);
  return bytes;
}

std::optional<RefusedMessage> RefusedMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::refused);
  if (!body) return std::nullopt;
  const RefusedMessage refused{body->takeText()};
  return body->finished() ? std::optional(refused) : std::nullopt;
}

std::string RingMessage::encode(uint8_t version) const {
  return numberMessage(MessageKind::ring, sequence, version);
}

std::optional<RingMessage> RingMessage::decode(std::string_view message) {
  const auto number = numberOf(message, MessageKind::ring);
  return number ? std::optional(RingMessage{*number}) : std::nullopt;
}

std::string InStepMessage::encode() const { return numberMessage(MessageKind::inStep, sequence); }

std::optional<InStepMessage> InStepMessage::decode(std::string_view message) {
  const auto number = numberOf(message, MessageKind::inStep);
  return number ? std::optional(InStepMessage{*number}) : std::nullopt;
}

std::string ProgrammedMessage::encode() const {
  return numberMessage(MessageKind::programmed, sequence);
}

std::optional<ProgrammedMessage> ProgrammedMessage::decode(std::string_view message) {
  const auto number = numberOf(message, MessageKind::programmed);
  return number ? std::optional(ProgrammedMessage{*number}) : std::nullopt;
}

std::string NoticeMessage::encode() const {
  std::string bytes = begun(MessageKind::notice);
  append(bytes, static_cast<uint8_t>(notice.kind));
  if (notice.kind == Notice::Kind::digest) {
    append(bytes, notice.digestId);
    appendText(bytes, notice.message);
  } else {
    append(bytes, notice.entryHandle);
  }
  return bytes;
}

std::optional<NoticeMessage> NoticeMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::notice);
  if (!body) return std::nullopt;
  Notice notice;
  notice.kind = static_cast<Notice::Kind>(body->take<uint8_t>());
  if (notice.kind == Notice::Kind::digest) {
    notice.digestId = body->take<uint32_t>();
    notice.message = body->takeText();
  } else if (notice.kind == Notice::Kind::idleEntry) {
    notice.entryHandle = body->take<uint64_t>();
  } else {
    return std::nullopt;
  }
  return body->finished() ? std::optional(NoticeMessage{notice}) : std::nullopt;
}

std::string QuestionMessage::encode() const {
  std::string bytes = numberMessage(MessageKind::question, id);
  append(bytes, static_cast<uint8_t>(question.kind));
  if (question.kind == Question::Kind::pipeline) {
    append(bytes, question.push);
  } else if (question.kind == Question::Kind::registerCells) {
    append(bytes, question.registerId);
    append(bytes, question.firstCell);
    append(bytes, question.cellCount);
  } else if (question.kind == Question::Kind::lastHits) {
    appendEntries(question, bytes);
  }
  return bytes;
}

std::optional<QuestionMessage> QuestionMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::question);
  if (!body) return std::nullopt;
  QuestionMessage asked;
  asked.id = body->take<uint64_t>();
  asked.question.kind = static_cast<Question::Kind>(body->take<uint8_t>());
  if (asked.question.kind == Question::Kind::pipeline) {
    asked.question.push = body->take<uint64_t>();
  } else if (asked.question.kind == Question::Kind::registerCells) {
    asked.question.registerId = body->take<uint32_t>();
    asked.question.firstCell = body->take<uint64_t>();
    asked.question.cellCount = body->take<uint32_t>();
  } else if (asked.question.kind == Question::Kind::lastHits) {
    if (!takeEntries(*body, &asked.question)) return std::nullopt;
  } else if (asked.question.kind != Question::Kind::counts) {
    if (body->bad()) return std::nullopt;
    return asked;
  }
  return body->finished() ? std::optional(asked) : std::nullopt;
}

std::string AnswerMessage::encode() const {
  std::string message = numberMessage(MessageKind::answer, id);
  append(message, errorCode);
  appendText(message, bytes.substr(0, mostBytes));
  return message;
}

std::optional<AnswerMessage> AnswerMessage::decode(std::string_view message) {
  auto body = bodyOf(message, MessageKind::answer);
  if (!body) return std::nullopt;
  AnswerMessage answer;
  answer.id = body->take<uint64_t>();
  answer.errorCode = body->take<uint16_t>();
  answer.bytes = body->takeText();
  return body->finished() ? std::optional(answer) : std::nullopt;
}

void ReportsWriter::clear() {
  bytes_ = begun(MessageKind::reports);
  bytes_.reserve(maxMessageBytes);
  bytes_.resize(reportsHead);
  count_ = 0;
}

void ReportsWriter::add(const PackedReport& report) {
  const std::string_view text = report.text.substr(0, maxReportText);
  append(bytes_, report.entryHandle);
  append(bytes_, report.sequence);
  append(bytes_, report.errorCode);
  append(bytes_, static_cast<uint16_t>(text.size()));
  bytes_.append(text);
  ++count_;
}

std::string ReportsWriter::finish(uint64_t receivedUpTo, uint8_t flags) {
  storeAt(bytes_.data() + 2, receivedUpTo);
  storeAt(bytes_.data() + 10, flags);
  storeAt(bytes_.data() + 11, count_);
  std::string message = bytes_;
  clear();
  return message;
}

std::optional<ReportsMessage> decodeReports(std::string_view message) {
  auto body = bodyOf(message, MessageKind::reports);
  if (!body) return std::nullopt;
  ReportsMessage reports;
  reports.receivedUpTo = body->take<uint64_t>();
  reports.flags = body->take<uint8_t>();
  reports.count = body->take<uint16_t>();
  if (body->bad() || reports.count > maxReportsPerMessage) return std::nullopt;
  reports.packed = message.substr(reportsHead);
  return reports;
}

bool eachReport(const ReportsMessage& message,
                const std::function<void(const PackedReport&)>& each) {
  Unpacker from(message.packed);
  for (unsigned i = 0; i < message.count && !from.bad(); ++i) {
    PackedReport report;
    report.entryHandle = from.take<uint64_t>();
    report.sequence = from.take<uint64_t>();
    report.errorCode = from.take<uint16_t>();
    report.text = from.takeBytes(from.take<uint16_t>());
    if (!from.bad()) each(report);
  }
  return from.finished();
}

}  // namespace Lattice
