#include "pipeline/CarryOver.h"

#include <fmt/format.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "PI/frontends/proto/translation_tables.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/P4InfoLookup.h"

namespace Pipeline {
namespace {

using google::protobuf::util::MessageDifferencer;
using p4::config::v1::Action;
using p4::config::v1::ActionProfile;
using p4::config::v1::ActionRef;
using p4::config::v1::MatchField;
using p4::config::v1::Table;
using Request = p4::v1::SetForwardingPipelineConfigRequest;
using Reason = std::optional<std::string>;  // nothing: the meaning is the same

// Its tables as they stand in shared memory.
DeviceConfig deviceOf(const Request& request) {
  Findings unsaid;
  const auto json = deviceData(request, &unsaid);
  return (json ? parseDeviceConfig(*json, &unsaid) : std::nullopt).value_or(DeviceConfig());
}

const DeviceTable* deviceTable(const DeviceConfig& device, const TableRef& ref) {
  const auto found = std::ranges::find_if(device.tables, [&](const DeviceTable& table) {
    return TableRef(table.kind, table.id) == ref;
  });
  return found == device.tables.end() ? nullptr : &*found;
}

std::string definition(const DeviceConfig& device, const DeviceTable& table) {
  const auto found = std::ranges::find(device.types, table.type, &DeviceType::name);
  return found == device.types.end() ? "" : found->name + found->definition;
}

class Comparison {
 public:
  Comparison(const Request& running, const Request& next)
      : runningDevice_(deviceOf(running)),
        nextDevice_(deviceOf(next)),
        running_(running.config().p4info(), runningDevice_.extensions),
        next_(next.config().p4info(), nextDevice_.extensions) {}

  std::string line(const TableRef& ref, size_t count, const std::string& why) const {
    const auto& [kind, id] = ref;
    if (kind == TableKind::match) {
      return fmt::format("table {}, {} entries: {}", running_.table(id)->preamble().name(), count,
                         why);
    }
    if (kind == TableKind::defaultEntry) {
      return fmt::format("the default entry of table {}: {}", running_.table(id)->preamble().name(),
                         why);
    }
    return fmt::format("action profile {}, {} {}: {}",
                       running_.actionProfile(id)->preamble().name(), count,
                       kind == TableKind::member ? "members" : "groups", why);
  }

  Reason reason(const TableRef& ref, size_t count) const {
    const auto& [kind, id] = ref;
    if (pi::fe::proto::is_translation_table(id)) return std::nullopt;  // names follow their users
    const DeviceTable* const former = deviceTable(runningDevice_, ref);
    const DeviceTable* const next = deviceTable(nextDevice_, ref);
    if (former == nullptr) return std::nullopt;  // nothing of it was ever programmed
    if (next == nullptr || former->name != next->name) return absent(kind);
    if (kind == TableKind::defaultEntry) {
      if (next_.table(id) == nullptr) return absent(kind);
      Reason why = actionsReason(*running_.table(id), *next_.table(id));
      const bool hasMeter = runningDevice_.extensions.defaultResources &&
                            running_.hasDirectMeter(*running_.table(id));
      return why || !hasMeter ? why : meterReason(*former, *next);
    }
    if (kind == TableKind::member) return reason(*running_.actionProfile(id), count);
    if (kind == TableKind::group) return reason(*running_.actionProfile(id), 0);
    Reason why = reason(*running_.table(id), count);
    const bool hasMeter = running_.hasDirectMeter(*running_.table(id));
    return why || !hasMeter ? why : meterReason(*former, *next);
  }

 private:
  // The settings of meters stand in rows alone, which another type would begin without.
  Reason meterReason(const DeviceTable& former, const DeviceTable& next) const {
    const bool isSame = definition(runningDevice_, former) == definition(nextDevice_, next);
    return isSame ? Reason() : "it has a direct meter, and its columns or actions are others";
  }

  static Reason absent(TableKind kind) {
    if (kind == TableKind::match) return "the new pipeline has no such table";
    if (kind == TableKind::defaultEntry) return "the new pipeline has none that can be changed";
    return "the new pipeline has no such profile";
  }

  Reason reason(const Table& former, size_t count) const {
    const Table* const next = next_.table(former.preamble().id());
    if (next == nullptr) return "the new pipeline has no such table";
    if (Reason why = fieldsReason(former, *next)) return why;
    if (Reason why = actionsReason(former, *next)) return why;
    if (former.implementation_id() != next->implementation_id()) {
      return "its action profile is another";
    }
    if (former.is_const_table() != next->is_const_table()) return "only one of both is constant";
    if (resourcesOf(former) != resourcesOf(*next)) return "its counter or meter is another";
    return sizeReason(next->size(), count);
  }

  static Reason sizeReason(int64_t size, size_t count) {
    if (size <= 0 || count <= static_cast<uint64_t>(size)) return std::nullopt;
    return fmt::format("it has room for {} now", size);
  }

  static std::multiset<uint32_t> resourcesOf(const Table& table) {
    return {table.direct_resource_ids().begin(), table.direct_resource_ids().end()};
  }

  Reason fieldsReason(const Table& former, const Table& next) const {
    if (former.match_fields_size() != next.match_fields_size()) {
      return "it has more or fewer match fields";
    }
    for (int i = 0; i < former.match_fields_size(); ++i) {
      if (!isSame(former.match_fields(i), next.match_fields(i))) {
        return fmt::format("its match field {} has another id, width or kind",
                           former.match_fields(i).name());
      }
    }
    return std::nullopt;
  }

  bool isSame(const MatchField& former, const MatchField& next) const {
    return former.id() == next.id() && former.bitwidth() == next.bitwidth() &&
           former.match_type() == next.match_type() &&
           former.other_match_type() == next.other_match_type() &&
           isSameType(former.type_name().name(), next.type_name().name());
  }

  // A type that is translated may be so in another way.
  bool isSameType(const std::string& former, const std::string& next) const {
    if (former != next) return false;
    const auto& formerTypes = running_.p4Info().type_info().new_types();
    const auto& nextTypes = next_.p4Info().type_info().new_types();
    const auto formerType = formerTypes.find(former);
    const auto nextType = nextTypes.find(next);
    if (formerType == formerTypes.end() || nextType == nextTypes.end()) {
      return formerType == formerTypes.end() && nextType == nextTypes.end();
    }
    return MessageDifferencer::Equals(formerType->second, nextType->second);
  }

  Reason actionsReason(const Table& former, const Table& next) const {
    for (const ActionRef& ref : former.action_refs()) {
      const Action& action = *running_.action(ref.id());
      const auto there = std::ranges::find(next.action_refs(), ref.id(), &ActionRef::id);
      if (there == next.action_refs().end() || there->scope() != ref.scope()) {
        return fmt::format("it takes its action {} no more, or not in the same way",
                           action.preamble().name());
      }
      if (!isSame(action, *next_.action(ref.id()))) {
        return fmt::format("its action {} has other parameters", action.preamble().name());
      }
    }
    return std::nullopt;
  }

  bool isSame(const Action& former, const Action& next) const {
    return std::ranges::equal(former.params(), next.params(), [this](const auto& a, const auto& b) {
      return a.id() == b.id() && a.bitwidth() == b.bitwidth() &&
             isSameType(a.type_name().name(), b.type_name().name());
    });
  }

  // Its members have the actions of its tables.
  Reason reason(const ActionProfile& former, size_t count) const {
    const ActionProfile* const next = next_.actionProfile(former.preamble().id());
    if (next == nullptr) return "the new pipeline has no such profile";
    if (former.with_selector() != next->with_selector() ||
        former.max_group_size() != next->max_group_size() ||
        former.selector_size_semantics_case() != next->selector_size_semantics_case()) {
      return "its selector or the size of its groups is another";
    }
    for (const uint32_t id : former.table_ids()) {
      const Table* const table = next_.table(id);
      if (table == nullptr) return "one of its tables is gone";
      if (Reason why = actionsReason(*running_.table(id), *table)) {
        return "of table " + table->preamble().name() + ": " + *why;
      }
    }
    return sizeReason(next->size(), count);
  }

  const DeviceConfig runningDevice_;
  const DeviceConfig nextDevice_;
  const P4InfoLookup running_;
  const P4InfoLookup next_;
};

}  // namespace

TableNames tableNamesOf(const Request& running) {
  TableNames names;
  for (const DeviceTable& table : deviceOf(running).tables) {
    names[{table.kind, table.id}] = table.name;
  }
  return names;
}

std::vector<std::string> obstaclesToEntries(const Request& running, const Request& next,
                                            const EntryCounts& counts) {
  std::vector<std::string> lines;
  const Comparison comparison(running, next);
  for (const auto& [ref, count] : counts) {
    if (count == 0) continue;
    if (const Reason why = comparison.reason(ref, count)) {
      lines.push_back(comparison.line(ref, count, *why));
    }
  }
  return lines;
}

}  // namespace Pipeline
