// The tables that keep the names of translated types: of a type that controllers write as strings
// (sdn_string), keys, action data and rows have numbers of 32 bits in place of the strings.
//
// Each such type that the program uses has a table, as if the program declared one, whose rows are
// written, confirmed, undone and restored as those of any other:
//   translation.TYPE  number -> text_32, text_128 or text_1000 (length, text)
// `text` has 32, 128 or 1,000 bytes: the name, of `length` bytes, and zeros behind it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

inline constexpr int32_t kNameBits = 32;  // of a number that stands for a name

// Of a translation table: 0x7e in the upper eight bits, which compilers give to no object, and a
// hash of the type's name below, so that a type has the same table in all programs. Two types with
// the same hash have the next free ids, in order of their names.
inline constexpr uint32_t kTranslationTables = 0x7e000000;
constexpr bool is_translation_table(uint32_t id) { return (id & 0xff000000) == kTranslationTables; }

// The action that a name of so many bytes has, and the bytes of its text. Id 0: a name cannot be so
// long.
struct NameAction {
  uint32_t id = 0;
  uint32_t bytes = 0;
};
NameAction name_action(uint32_t bytes);

// Fields, parameters and metadata whose values are names have this annotation in the P4Info with
// the tables.
inline constexpr char kNameAnnotation[] = "@translated_name";

// The types in use whose values are names, by name, with the ids of their tables. Any thread.
std::map<std::string, uint32_t> translation_tables(const p4::config::v1::P4Info& p4Info);

// The P4Info with these tables and their actions behind its own, and with fields of kNameBits where
// values are names. Any thread.
p4::config::v1::P4Info with_translation_tables(const p4::config::v1::P4Info& p4Info);

}  // namespace pi::fe::proto
