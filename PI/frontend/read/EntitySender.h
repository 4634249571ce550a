// Packs table entries, members and groups into ReadResponse messages of bounded size.
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/read/Query.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontends/proto/device_mgr.h"

namespace pi::fe::proto {

// Messages stay below 32 KiB each unless a single entry is larger than that: in memory they take
// ten times that, and many Reads may be under way. One thread.
class EntitySender {
 public:
  EntitySender(const P4InfoIndex& index, const DeviceMgr::ReadSink& sink)
      : index_(index), sink_(sink) {}

  // All answer false once the sink has: nothing more is wanted.
  // `count` is what the entry's direct counter shows, if the form has that.
  bool entrySent(const TablePlan& table, const Entry& entry, EntryForm form,
                 const p4::v1::CounterData& count);
  bool objectSent(const Entry& object);
  bool defaultEntrySent(const TablePlan& table);
  // What is left. An answer without any entity is one empty message, which some clients wait for.
  bool restSent();

 private:
  void keyIs(const TablePlan& table, const Entry& entry, p4::v1::TableEntry* sent) const;
  void actionIs(const Entry& entry, p4::v1::TableAction* sent) const;
  bool entitySent();
  bool messageSent();

  const P4InfoIndex& index_;
  const DeviceMgr::ReadSink& sink_;
  p4::v1::Entity entity_;  // the one being made
  p4::v1::ReadResponse response_;
  size_t responseBytes_ = 0;
  bool wanted_ = true;
  bool anySent_ = false;
};

}  // namespace pi::fe::proto
