// Places for calls of one kind, so that neither many calls nor clients that do not take their
// answers use up the threads of others.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "PI/server/SendDeadlines.h"

namespace pi::server {

// Thread-safe.
class CallPlaces {
 public:
  // `calls` names the kind in messages. The references outlive the object.
  CallPlaces(CallKind kind, const char* calls, SendDeadlines& deadlines)
      : kind_(kind), calls_(calls), deadlines_(deadlines) {}

  // Given back when it is destroyed: once the client has taken the answer.
  class Place {
   public:
    Place(CallPlaces& places, std::string connection)
        : places_(places), connection_(std::move(connection)) {}
    ~Place() { places_.giveBack(connection_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

   private:
    CallPlaces& places_;
    const std::string connection_;
  };

  // Takes one of `limit` places for a call of the connection, which may have three quarters of
  // them. When all are taken, a call whose client takes no answer is ended in favour of this one.
  // RESOURCE_EXHAUSTED: there is no place.
  grpc::Status take(const std::string& connection, size_t limit, std::optional<Place>* place);

 private:
  grpc::Status requirePlaceLocked(const std::string& connection, size_t limit);
  void giveBack(const std::string& connection);

  const CallKind kind_;
  const char* const calls_;
  SendDeadlines& deadlines_;
  std::mutex mutex_;  // guards the members below
  size_t taken_ = 0;
  std::map<std::string, size_t> takenBy_;  // connections with a place
};

}  // namespace pi::server
