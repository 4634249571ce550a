/* The insides of the types that applications see as opaque: for targets, which fill them in and
 * read them, and for the library itself. */
#pragma once

#include "PI/pi_act_prof.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The library only hands the pointer around; the front end that owns the object attaches its
 * description of the program. */
struct pi_p4info_s {
  void* attached;
};

struct pi_match_key_s {
  const pi_p4info_t* p4info;
  pi_p4_id_t table_id;
  pi_priority_t priority;
  size_t data_size;
  char* data;
};

struct pi_action_data_s {
  const pi_p4info_t* p4info;
  pi_p4_id_t action_id;
  size_t data_size;
  char* data;
};

/* The target sets num_entries, mkey_nbytes, entries_size and entries, and deletes entries at
 * fetch_done. An entry, little-endian and unpadded: entry handle 8 | priority 4 | match key
 * mkey_nbytes | action entry type 4 | DATA: action id 4, size 4, action data; INDIRECT: handle 8 |
 * entry properties 4 | direct resources 4, both 0. */
struct pi_table_fetch_res_s {
  const pi_p4info_t* p4info;
  pi_p4_id_t table_id;
  size_t num_entries;
  size_t mkey_nbytes;
  size_t idx;
  size_t curr; /* bytes of entries read so far */
  size_t entries_size;
  char* entries;
  char* data;
  size_t data_size_per_entry;
  size_t num_direct_resources;
  size_t max_size_of_direct_resources;
};

/* The target sets the counts, sizes and arrays, and deletes the arrays at fetch_done. Little-endian
 * and unpadded, a member: member handle 8 | action id 4 | size 4 | action data; a group: group
 * handle 8 | number of members 4 | index of its first member in mbr_handles 4. */
struct pi_act_prof_fetch_res_s {
  const pi_p4info_t* p4info;
  pi_p4_id_t act_prof_id;
  size_t num_members;
  size_t num_groups;
  size_t idx_members;
  size_t idx_groups;
  size_t curr_members;
  size_t curr_groups;
  size_t entries_members_size;
  size_t entries_groups_size;
  char* entries_members;
  char* entries_groups;
  size_t num_cumulated_mbr_handles;
  pi_indirect_handle_t* mbr_handles;
  pi_action_data_t* action_datas;
};

#ifdef __cplusplus
}
#endif
