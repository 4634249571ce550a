// The headers that travel with packets between controller and switch, as the pipeline declares
// them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/vela/Entity.h"

namespace P4Runtime {

struct P4ControllerPktMetadataField {
  uint32_t id = 0;
  std::string name;
  uint32_t bitwidth = 0;

  uint32_t sizeInBytes() const { return bitwidth / 8 + (bitwidth % 8 != 0 ? 1 : 0); }
  friend bool operator==(const P4ControllerPktMetadataField&,
                         const P4ControllerPktMetadataField&) = default;
};

// One header. Call with the activity lock held.
class P4ControllerPktMetadataEntry final : public Vela::Entity {
 public:
  using Ptr = Vela::Ptr<P4ControllerPktMetadataEntry>;
  using Fields = std::map<uint32_t, P4ControllerPktMetadataField>;

  P4ControllerPktMetadataEntry(std::string name, uint32_t id) : Entity(std::move(name)), id_(id) {}
  const char* typeName() const override { return "P4Runtime::P4ControllerPktMetadataEntry"; }

  uint32_t id() const { return id_; }
  // By field id, ascending: the order in which they stand in the header.
  const Fields& metadataField() const { return metadataField_.values(); }
  const P4ControllerPktMetadataField& metadataField(uint32_t id) const {
    return metadataField_.value(id);
  }
  bool metadataFieldHas(uint32_t id) const { return metadataField_.has(id); }
  void metadataFieldIs(const P4ControllerPktMetadataField& field) {
    metadataField_.valueIs(field.id, field);
  }
  void metadataFieldDel(uint32_t id) { metadataField_.valueDel(id); }
  void metadataFieldDelAll() { metadataField_.valueDelAll(); }

  // Each field takes whole bytes of its own.
  uint64_t metadataEntryFieldsBytes() const;

  // Of a header that stands before packets as the program has it on the wire: its fields in their
  // order, bit behind bit, filled up to whole bytes. Empty for one as above.
  const std::vector<P4ControllerPktMetadataField>& wireFields() const { return wireFields_; }
  void wireFieldEnq(P4ControllerPktMetadataField field) { wireFields_.push_back(std::move(field)); }

 private:
  const uint32_t id_;  // in the P4Info
  Vela::Collection<uint32_t, P4ControllerPktMetadataField, Fields> metadataField_{*this,
                                                                                  "metadataField"};
  std::vector<P4ControllerPktMetadataField> wireFields_;
};

// The pipeline's headers by name, "packet_in" and "packet_out" as a rule. Call with the lock held.
class P4ControllerPktMetadata final : public Vela::Entity {
 public:
  using Ptr = Vela::Ptr<P4ControllerPktMetadata>;
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::P4ControllerPktMetadata"; }

  // Made when it is not there; an id that is there stays.
  P4ControllerPktMetadataEntry::Ptr metadataEntryIs(const std::string& name, uint32_t id);
  const P4ControllerPktMetadataEntry::Ptr& metadataEntry(const std::string& name) const {
    return metadataEntry_.value(name);  // null if absent
  }
  void metadataEntryDel(const std::string& name) { metadataEntry_.valueDel(name); }
  void metadataEntryDelAll() { metadataEntry_.valueDelAll(); }

 private:
  Vela::Collection<std::string, P4ControllerPktMetadataEntry::Ptr> metadataEntry_{*this,
                                                                                  "metadataEntry"};
};

P4ControllerPktMetadata::Ptr p4ControllerPktMetadataFactory();

}  // namespace P4Runtime

template <>
struct Vela::TextForm<P4Runtime::P4ControllerPktMetadataField> {
  static const char* typeName() { return "P4Runtime::P4ControllerPktMetadataField"; }
  static std::string toText(const P4Runtime::P4ControllerPktMetadataField& field);
  static std::optional<P4Runtime::P4ControllerPktMetadataField> fromText(std::string_view text);
};
