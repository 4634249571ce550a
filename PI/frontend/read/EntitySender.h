// Packs table entries, members and groups into ReadResponse messages of bounded size.
#pragma once

#include <optional>

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

  // What the sender is told of an entry beside itself, for forms that show it.
  struct Told {
    const p4::v1::CounterData& count;                    // of its direct counter
    int64_t idleTimeout = 0;                             // nanoseconds; 0: none
    std::optional<int64_t> sinceLastHit = std::nullopt;  // nanoseconds; nothing: not known
  };

  // All return false once the sink has returned false: the client wants no more.
  bool sendEntry(const TablePlan& table, const Entry& entry, EntryForm form, const Told& told);
  bool sendObject(const Entry& object);
  bool sendEntity(p4::v1::Entity* entity);  // leaves it empty
  // Null: the program's own.
  bool sendDefaultEntry(const TablePlan& table, const Entry* written, EntryForm form,
                        const p4::v1::CounterData& count);
  // Sends the last message. A Read without any entity gets one empty message, which some clients
  // wait for.
  bool sendRest();

 private:
  void keyIs(const TablePlan& table, const Entry& entry, p4::v1::TableEntry* sent) const;
  void actionIs(const Entry& entry, p4::v1::TableAction* sent) const;
  bool addEntity();
  bool sendMessage();

  const P4InfoIndex& index_;
  const DeviceMgr::ReadSink& sink_;
  p4::v1::Entity entity_;  // the one being made
  p4::v1::ReadResponse response_;
  size_t responseBytes_ = 0;
  bool wanted_ = true;
  bool anySent_ = false;
};

}  // namespace pi::fe::proto
