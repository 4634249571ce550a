// The requests of other processes to the state database: one JSON object a request, one an answer.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/Json.h"

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
//                                                         makes the entity, with all of these
//   {"request": "delete", "path": P}                      an entity that could be made there
//   {"request": "call", "path": P, "operation": O, "arguments": ["text", ...]}
//   {"request": "list", "path": P}                        all paths below P, with their types
//   {"request": "watch", "path": P}                       as get; changes follow, a line each
// Returns {"ok": true, ...}. Throws RequestError, and any exception of the entity.
Vela::Json answerRequest(Database& database, const cJSON& request);
// Told of each request of a socket or a command that has been carried out, before its answer goes;
// one for the process. Call with the activity lock held.
void carriedOutHandlerIs(std::function<void(const cJSON& request)> handler);
Vela::Json errorAnswer(const std::string& message);  // {"ok": false, "error": message}

// Requests, spelt out. An attribute of nothing but digits is a number.
using Attributes = std::vector<std::pair<std::string, std::string>>;  // name, value as text
Vela::Json getRequest(const std::string& path, const std::string& attribute = {});
Vela::Json setRequest(const std::string& path, const std::string& attribute,
                      const std::string& value);
Vela::Json createRequest(const std::string& path, const Attributes& attributes);
Vela::Json deleteRequest(const std::string& path);
Vela::Json callRequest(const std::string& path, const std::string& operation,
                       const std::vector<std::string>& arguments);
Vela::Json listRequest(const std::string& path);
Vela::Json watchRequest(const std::string& path);

// Throws RequestError when there is no such path.
Vela::Ptr<Vela::Entity> requestedEntity(Database& database, const cJSON& request);

}  // namespace Orrery
