// Packs table entries into ReadResponse messages of bounded size.
#pragma once

#include "PI/frontend/Entry.h"
#include "PI/frontend/P4InfoIndex.h"
#include "PI/frontends/proto/device_mgr.h"

namespace pi::fe::proto {

// Messages stay below 1 MiB each unless a single entry is larger than that. One thread.
class EntitySender {
 public:
  EntitySender(const P4InfoIndex& index, const DeviceMgr::ReadSink& sink)
      : index_(index), sink_(sink) {}

  // All answer false once the sink has: nothing more is wanted.
  bool entrySent(const TablePlan& table, const Entry& entry);
  bool defaultEntrySent(const TablePlan& table);
  bool restSent();

 private:
  bool entitySent();

  const P4InfoIndex& index_;
  const DeviceMgr::ReadSink& sink_;
  p4::v1::Entity entity_;  // the one being made
  p4::v1::ReadResponse response_;
  size_t responseBytes_ = 0;
  bool wanted_ = true;
};

}  // namespace pi::fe::proto
