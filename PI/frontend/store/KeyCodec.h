// Match elements of a P4Runtime table entry to PI match key bytes, and back.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/wire/EntryViews.h"

namespace pi::fe::proto {

// Writes table.keyBytes bytes to `key`. Throws a Refusal that names table and field, an UnknownName
// (PI/frontend/store/NameCodec.h) where no entry can have the key; the bytes of `key` then have no
// meaning.
void encodeKey(const TablePlan& table, const p4::v1::TableEntry& entry, uint8_t* key,
               const Naming& naming = {});
void encodeKey(const TablePlan& table, std::span<const MatchView> matches, uint8_t* key,
               const Naming& naming = {});

// An entry's priority, checked against the match kinds of the table. Throws a Refusal.
uint32_t checkedPriority(const TablePlan& table, int32_t priority);

// Adds the match elements of `key`: values in their shortest form, don't-cares left out.
void decodeKey(const TablePlan& table, const uint8_t* key, p4::v1::TableEntry* entry);

// "table ingress.ipv4: dst 10.0.0.0/8", cut to fit into an error message.
std::string keyText(const TablePlan& table, const uint8_t* key, uint32_t priority);

}  // namespace pi::fe::proto
