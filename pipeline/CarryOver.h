// Whether the entries of a running pipeline mean the same in another one.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "pipeline/TableLayout.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace Pipeline {

// How many entries, members or groups there are; a table that is not named has none.
using EntryCounts = std::map<TableRef, size_t>;

// Of a pipeline that runs, for one that is to take its entries over: tables may have another alias
// there.
TableNames tableNamesOf(const p4::v1::SetForwardingPipelineConfigRequest& running);

// What keeps them from going over to the next pipeline, one line a table or profile, such as "table
// ingress.acl, 12 entries: its match field eth_type has another width". Nothing when all can. Both
// are requests of pipeline files that run. Any thread.
std::vector<std::string> obstaclesToEntries(
    const p4::v1::SetForwardingPipelineConfigRequest& running,
    const p4::v1::SetForwardingPipelineConfigRequest& next, const EntryCounts& counts);

}  // namespace Pipeline
