// Which rows hold which objects of a program: for forwarding agents that execute it, and know its
// objects by their full names.
#pragma once

#include <string>

namespace p4::config::v1 {
class P4Info;
}

namespace Pipeline {

struct DeviceConfig;

// JSON. "tables" has an element for each table of rows:
//   "rows"   its name
//   "kind"   "entries" and "default" of a table; "members", "groups" and "watch" of an action
//            profile, the last for the ports that members of groups watch;
//            "counter", "meter", "register", "value_set", "digest", with ".default" behind it for
//            the cells without a row, and ".member" for the members of a value set;
//            "idle_timeout"; "multicast_group" and "clone_session", with ".replica" behind it for
//            their replicas; all others have "other"
//   "name"   of the table, profile, counter and so on, in full
//   "id"     its id in the P4Info
//   "bits"   the widths of its fields; of a value set's members only
// "actions" has an element for each action, with "id" and "name".
std::string rowNames(const p4::config::v1::P4Info& p4Info, const DeviceConfig& config);

}  // namespace Pipeline
