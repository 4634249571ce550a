#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {
namespace {

const char* typeText(uint32_t type) {
  switch (type) {
    case actionResource:
      return "action";
    case tableResource:
      return "table";
    case groupTableResource:
      return "group table of action profile";
    case actionProfileResource:
      return "action profile";
    case directMeterResource:
      return "direct meter";
    case directCounterResource:
      return "direct counter";
    default:
      return "resource";
  }
}

}  // namespace

std::string toText(const ResourceId& rid) {
  return std::string(typeText(rid.type)) + " " + std::to_string(rid.id);
}

}  // namespace P4Runtime
