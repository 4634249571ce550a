// The abilities beyond the plain form of a device configuration: a file asks for them by keys under
// "extensions" of its "p4rtc", and runs without them as files always did.
#pragma once

#include <string_view>

struct cJSON;
namespace p4::config::v1 {
class P4Info;
class Table;
}  // namespace p4::config::v1

namespace Pipeline {

class Findings;

struct Extensions {
  // Fields and parameters of any width; LPM fields of any width; ranges of many values, and range
  // and optional fields that match anything. Key "fields".
  bool fields = false;
  // Default entries are written, in tables of their own. Key "default_actions".
  bool defaultActions = false;
  // Headers of packets have any layout, bit behind bit as the program declares them. Key
  // "packet_headers".
  bool packetHeaders = false;

  // Entries come with the pipeline that controllers may change and delete. Key "initial_entries".
  bool initialEntries = false;
  // The program may have no tables, or no actions. Key "no_tables".
  bool noTables = false;

  // Multicast groups, clone sessions, cells of counters, meters and registers, value sets and
  // digests have tables. Key "entities".
  bool entities = false;

  // Values of translated types are strings to controllers, and numbers in rows. Needs `fields`. Key
  // "strings".
  bool strings = false;

  // The ports that members of groups and one-shot sets watch have tables. Needs `entities`. Key
  // "watch_ports".
  bool watchPorts = false;

  // Default entries have the direct meter and counter of their tables. Needs `defaultActions`. Key
  // "default_resources".
  bool defaultResources = false;

  bool any() const { return *this != Extensions{}; }
  friend bool operator==(const Extensions&, const Extensions&) = default;
};

// Whether controllers may change the default entry: it is not constant, nor that of a table whose
// actions are in a profile. Ids from 2^31 on belong to the tables of default entries: a table of
// the program with such an id keeps the program's default.
bool hasOpenDefault(const p4::config::v1::Table& table);

// Those without which something of the program could not be programmed.
Extensions extensionsFor(const p4::config::v1::P4Info& p4Info);

// Whether packets out name their port, so that a packed header serves them as well as one of
// before: only with a packed one may controllers leave fields out.
bool namesEgressPort(const p4::config::v1::P4Info& p4Info);

// The P4Info with all that the extensions add to it: tables, and widths of translated strings.
p4::config::v1::P4Info withAdditions(const p4::config::v1::P4Info& p4Info,
                                     const Extensions& extensions);

// Of the object "p4rtc". An unknown key, or another value than 1, is an error: the file would run
// by half.
Extensions readExtensions(const cJSON& p4rtc, Findings* findings);
// The extensions in the text of a device configuration. Any other text has none.
Extensions extensionsIn(std::string_view deviceConfig);
// Whether an element of "table_entries" is one that controllers may change and delete.
bool isInitialEntry(const cJSON* entry, const Extensions& extensions);
// Adds nothing when there are none.
void addExtensions(const Extensions& extensions, cJSON* p4rtc);

}  // namespace Pipeline
