// Names of P4 objects as column, type and table names, and back from people's spellings.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Pipeline {

// A legal name for a column, an action or a type: letters, digits and '_', no digit first, none of
// the words that definitions use themselves. "ingress.ipv4[0].dst" -> "ingress_ipv4_0_dst".
// `fallback` stands in for a name without a letter or digit.
std::string legalName(std::string_view p4Name, std::string_view fallback);

// A legal name for a table: as legalName(), but dots and dashes stay.
std::string legalTableName(std::string_view p4Name, std::string_view fallback);

// Gives each name out once: "dst", then "dst_2". Upper and lower case count as equal, because the
// query language ignores the difference.
class UniqueNames {
 public:
  std::string take(std::string name);

 private:
  std::set<std::string> taken_;  // in lower case
};

// Whether `text` names `p4Name` in full or by its last parts: "dst_addr" and "ipv4.dst_addr" both
// name "hdr.ipv4.dst_addr".
bool namesObject(std::string_view text, std::string_view p4Name);

// "; did you mean "ports"?" when one of `names` is close to `text`, else "".
std::string didYouMean(std::string_view text, const std::vector<std::string>& names);

std::string quoted(std::string_view text);
std::string lowered(std::string_view text);

}  // namespace Pipeline
