// The records of calls, as a journal has them.
#pragma once

#include <google/protobuf/message_lite.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "journal/Record.h"

namespace Cli {

struct Calls {
  // Each with the next sequence, at so many seconds. Return the sequence.
  uint64_t add(const Journal::Draft& draft) {
    std::string& bytes = records.emplace_back(draft.size(), '\0');
    ++last;
    draft.write(last, Journal::Time(std::chrono::seconds(last)), bytes.data());
    Journal::seal(bytes);
    return last;
  }
  // A request, with its outcome behind it unless none is known.
  uint64_t add(const std::string& identity, std::string_view request,
               std::optional<Journal::Outcome> outcome, Journal::RecordKind kind) {
    const uint64_t sequence =
        add(Journal::Draft::request(kind, identity, "ipv4:192.0.2.1:5", {&request, 1}));
    if (outcome) {
      outcome->request = sequence;
      add(Journal::Draft::outcome(*outcome));
    }
    return sequence;
  }
  uint64_t add(const std::string& identity, const google::protobuf::MessageLite& request,
               std::optional<Journal::Outcome> outcome = Journal::Outcome{},
               Journal::RecordKind kind = Journal::RecordKind::write) {
    const std::string bytes = request.SerializeAsString();
    return add(identity, std::string_view(bytes), std::move(outcome), kind);
  }

  std::vector<std::string> records;
  uint64_t last = 0;  // sequence
};

}  // namespace Cli
