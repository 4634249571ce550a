// Entities that are no table entries, kept as rows all the same: multicast groups and clone
// sessions, cells of counters, meters and registers, value sets and digests, idle time-outs of
// entries, watch ports of groups.
//
// Each has a table, as if the program declared one, whose rows are written, confirmed, undone and
// restored as those of any other:
//   pre.multicast_group  multicast_group_id            -> group
//   pre.clone_session    session_id                    -> session (class_of_service,
//                                                                  packet_length_bytes)
//   counter.NAME         index                         -> set (packets, bytes, times)
//   meter.NAME           index                         -> set (cir, cburst, pir, pburst, eburst)
//   register.NAME        index                         -> set (value, times)
//   value_set.NAME       entry (always 0)              -> set (members: how many)
//   digest.NAME          entry (always 0)              -> set (max_timeout_ns, max_list_size,
//                                                              ack_timeout_ns)
//   idle_timeout.TABLE   the table's match fields      -> set (ns)
//   PROFILE.watch        group_id, member_id           -> set (port)
// The default entry of the tables of cells stands for all cells without a row; a meter's cell with
// the action `row` has no setting. `times` rises when a cell is set to the value that it was set to
// before. The ids of watch ports are the lower halves of the target's handles, for one-shot sets,
// too. What a group, session or value set holds are rows of another table, all key, with the action
// `row`:
//   pre.multicast_group.replica  multicast_group_id, egress_port, instance
//   pre.clone_session.replica    session_id, egress_port, instance
//   value_set.NAME.member        the value set's fields
#pragma once

#include <cstdint>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// Widths in bits.
inline constexpr int32_t kEntityIdBits = 32;     // of groups, sessions, ports and instances
inline constexpr int32_t kEntityIndexBits = 64;  // of cells

// The P4Info with such tables and their actions behind its own. An entity of a kind that cannot be
// kept, or whose table would have the id of another object, has none. Any thread.
p4::config::v1::P4Info with_entity_tables(const p4::config::v1::P4Info& p4Info,
                                          bool withWatchPorts);

}  // namespace pi::fe::proto
