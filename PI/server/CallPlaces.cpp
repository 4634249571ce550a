#include "PI/server/CallPlaces.h"

namespace pi::server {

using grpc::Status;
using grpc::StatusCode;

Status CallPlaces::take(const std::string& connection, size_t limit, std::optional<Place>* place) {
  const std::lock_guard lock(mutex_);
  Status status = requirePlaceLocked(connection, limit);
  if (!status.ok()) return status;
  ++taken_;
  ++takenBy_[connection];
  place->emplace(*this, connection);
  return status;
}

Status CallPlaces::requirePlaceLocked(const std::string& connection, size_t limit) {
  const auto own = takenBy_.find(connection);
  const size_t share = limit - limit / 4;
  if (own != takenBy_.end() && share < limit && own->second >= share) {
    return Status(StatusCode::RESOURCE_EXHAUSTED,
                  std::to_string(own->second) + " " + calls_ +
                      " of this connection are under way, which is the limit of one connection; "
                      "try again once some have ended");
  }
  if (taken_ < limit || deadlines_.endStalled(kind_)) return Status::OK;
  return Status(StatusCode::RESOURCE_EXHAUSTED,
                std::to_string(limit) + " " + calls_ +
                    " are under way, which is the limit; try again once some have ended");
}

void CallPlaces::giveBack(const std::string& connection) {
  const std::lock_guard lock(mutex_);
  --taken_;
  const auto own = takenBy_.find(connection);
  if (--own->second == 0) takenBy_.erase(own);
}

}  // namespace pi::server
