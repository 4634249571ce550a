// The fetch data of action profiles: their cached members and groups, as the PI library reads them.
#pragma once

#include "P4Runtime/table/TableImpl.h"
#include "PI/target/pi_act_prof_imp.h"

namespace P4Runtime {

// Set the counts and sizes of the result, and arrays that the caller deletes. Call with the
// activity lock held, while the caches are mounted. Throw std::bad_alloc; the result is then as
// before.
void populateMemberFetchData(const TableImpl& tableImpl, pi_p4_id_t actProfId,
                             pi_act_prof_fetch_res_t* res);
void populateGroupFetchData(const TableImpl& tableImpl, pi_p4_id_t actProfId,
                            pi_act_prof_fetch_res_t* res);

}  // namespace P4Runtime
