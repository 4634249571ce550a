// What other processes may ask of the state database: one JSON object a request, one an answer.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/orrery/Database.h"
#include "platform/orrery/Json.h"

namespace Orrery {

// A request that cannot be served; the message says why and what to do.
class RequestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

//   {"request": "get", "path": P}                         the entity: its type, all attributes,
//                                                         operations and children
//   {"request": "get", "path": P, "attribute": A}         one attribute, by name or number
//   {"request": "set", "path": P, "attribute": A, "value": V}
//                                                         makes the entity where it can be made
//   {"request": "create", "path": P, "attributes": {A: V, ...}}
//                                                         what can be made there, with all of these
//   {"request": "delete", "path": P}                      what could be made there
//   {"request": "call", "path": P, "operation": O, "arguments": ["text", ...]}
//   {"request": "list", "path": P}                        all paths below P, with their types
//   {"request": "watch", "path": P}                       as get; changes follow, a line each
// Answers {"ok": true, ...}. Throws RequestError.
Json answered(Database& database, const cJSON& request);
Json errorAnswer(const std::string& message);  // {"ok": false, "error": message}

// Throws RequestError when there is no such path.
Vela::Ptr<Vela::Entity> requestedEntity(Database& database, const cJSON& request);

}  // namespace Orrery
