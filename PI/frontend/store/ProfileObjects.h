// Objects of action profiles in the store: references of entries to members and groups, one-shot
// action sets, and the members and groups themselves, which the store keeps as entries, too.
#pragma once

#include <absl/container/inlined_vector.h>

#include <functional>
#include <string>
#include <vector>

#include "PI/frontend/store/Entry.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// A member or group as controllers name it. Its entry in the store has the profile's id as table
// id, priority 0 (member) or 1 (group), and the four bytes of the id, big-endian, as its key.
struct ObjectId {
  uint32_t profileId = 0;
  bool isGroup = false;
  uint32_t id = 0;

  bool operator==(const ObjectId&) const = default;
  template <typename H>
  friend H AbslHashValue(H state, const ObjectId& object) {
    return H::combine(std::move(state), object.profileId, object.isGroup, object.id);
  }
};

inline constexpr size_t kObjectKeyBytes = 4;

// The key and hash of an object, for a look-up.
class ObjectLookup {
 public:
  explicit ObjectLookup(const ObjectId& object);
  ObjectLookup(const ObjectLookup&) = delete;
  ObjectLookup& operator=(const ObjectLookup&) = delete;
  const EntryLookup& lookup() const { return lookup_; }  // lasts as long as this

 private:
  char bytes_[kObjectKeyBytes];
  EntryLookup lookup_;
};

// The entry of an object, action bytes left to fill in.
EntryPtr makeObject(const ObjectId& object, size_t actionSize);
ObjectId objectId(const Entry& object);
std::string objectText(const ObjectId& object);  // "member 7", "group 3"

// Action bytes of an entry that points at a member or group: handle u64 | controller's id u32, in
// host order, since they never leave this process.
struct Reference {
  uint64_t handle = 0;  // the target's
  uint32_t id = 0;
};
inline constexpr size_t kReferenceBytes = sizeof(uint64_t) + sizeof(uint32_t);
Reference reference(const Entry& entry);
void referenceIs(Entry* entry, const Reference& reference);

// The target's handles of the members and the group behind an action set; the controller never
// hears of them.
struct HiddenHandles {
  uint64_t group = 0;
  std::vector<uint64_t> members;  // one an element of the set, in order
};

// Action bytes of an entry with a set: group u64 | number of members u32 | members u64 each | the
// serialized p4.v1.ActionProfileActionSet; in host order.
size_t actionSetBytes(size_t members, size_t setBytes);
HiddenHandles hiddenHandles(const Entry& entry);
std::string_view serializedActionSet(const Entry& entry);
// The entry was made with room for exactly that.
void actionSetIs(Entry* entry, const HiddenHandles& handles, std::string_view serialized);
p4::v1::ActionProfileActionSet actionSet(const Entry& entry);
// For a short look: valid until the next call of the same function on this thread.
const p4::v1::ActionProfileActionSet& peekedActionSet(const Entry& entry);

// Of a group object.
std::string_view serializedGroup(const Entry& group);
p4::v1::ActionProfileGroup group(const Entry& group);
const p4::v1::ActionProfileGroup& peekedGroup(const Entry& group);  // as peekedActionSet()

// How often an element with this weight stands in the group as the target has it.
inline uint32_t repeats(int32_t weight) { return weight > 0 ? static_cast<uint32_t>(weight) : 1; }

// The same key, metadata, meter setting and handle, with room for other action bytes.
EntryPtr entryAs(const Entry& entry, EntryKind kind, size_t actionSize);

// The members and groups an entry or a group points at; the profile is the entry's table's.
using ObjectIds = absl::InlinedVector<ObjectId, 2>;
ObjectIds references(uint32_t profileId, const Entry& entry);

}  // namespace pi::fe::proto
