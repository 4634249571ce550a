// The four pictures of the tables' content, which must agree whenever nothing is being written:
// a controller's Reads, the agent's cache records, its rows, and the forwarder's tables.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lattice/types/DirectColumns.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/Pipeline.h"

namespace TestSupport {

// Key text to value text, both with the table's name; two pictures are equal when these are.
using View = std::map<std::string, std::string>;

// Table entries, members and groups in the words below.
View viewOf(const Pipeline& pipeline, const std::vector<p4::v1::Entity>& entities);
View viewOfEntries(const Pipeline& pipeline, const std::vector<p4::v1::TableEntry>& entries);

// How a view spells things, from the agent's PI bytes.
namespace Words {
std::string hex(std::string_view bytes);
std::string entryKey(std::string_view table, std::string_view matchKey, int64_t priority);
std::string memberKey(std::string_view memberTable, uint32_t id);
std::string groupKey(std::string_view groupTable, uint32_t id);
std::string action(uint32_t actionId, std::string_view data);
std::string toMember(uint32_t id);  // in place of an action
std::string toGroup(uint32_t id);
std::string toActionSet(const std::map<std::string, uint64_t>& weights);  // of actions, as above
std::string shares(const std::map<uint32_t, uint64_t>& weights);          // of a group's members
std::string meter(const Lattice::MeterColumns& meter);                    // "" when none is given
}  // namespace Words

// The forwarder's tables, spelt as StoredState::rows. Throws std::runtime_error when it does not
// answer.
View forwarderView(const ForwarderProcess& forwarder);

// "" when they are equal, else the first differing lines, for people.
std::string difference(const std::string& leftName, const View& left, const std::string& rightName,
                       const View& right);

}  // namespace TestSupport
