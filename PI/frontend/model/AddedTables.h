// What is common to tables that are added to a P4Info.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <string>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// The ids of all objects of the P4Info.
absl::flat_hash_set<uint32_t> takenIds(const p4::config::v1::P4Info& p4Info);

// Both its name and its alias.
void nameIs(p4::config::v1::Preamble* preamble, uint32_t id, const std::string& name);

// They number fields, parameters and actions from 1 on, in the order of the calls.
void addExactField(p4::config::v1::Table* table, const char* name, int32_t bits);
void addParam(p4::config::v1::Action* action, const char* name, int32_t bits);
void addActionRef(p4::config::v1::Table* table, uint32_t actionId,
                  p4::config::v1::ActionRef::Scope scope);

}  // namespace pi::fe::proto
