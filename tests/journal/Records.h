// Records for tests.
#pragma once

#include <string>
#include <vector>

#include "journal/Reader.h"
#include "journal/Record.h"

namespace Journal {

constexpr Time someTime{std::chrono::seconds(1)};

inline std::string bytesOf(const Draft& draft, uint64_t sequence) {
  std::string bytes(draft.size(), '\0');
  draft.write(sequence, someTime, bytes.data());
  seal(bytes);
  return bytes;
}

inline std::string requestBytes(uint64_t sequence, std::string_view message = "message") {
  return bytesOf(Draft::request(RecordKind::write, "a", "b", {&message, 1}), sequence);
}

struct Found {
  std::vector<uint64_t> sequences;
  std::vector<RecordKind> kinds;
  std::vector<std::string> requests;
  std::vector<std::string> notes;
  uint64_t lost = 0;
};

inline Found found(std::vector<File> files) {
  Found found;
  Reader reader(std::move(files));
  while (const auto record = reader.next()) {
    found.sequences.push_back(record->sequence);
    found.kinds.push_back(record->kind);
    if (const auto request = requestOf(*record)) found.requests.emplace_back(request->bytes);
    if (const auto gap = gapOf(*record)) found.lost += gap->lost;
  }
  found.notes = reader.notes();
  return found;
}

}  // namespace Journal
