// Writes P4Runtime updates straight into an engine, as a forwarding plane would have them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "p4/Engine.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace P4Test {

class Controller {
 public:
  Controller(P4::Engine& engine, p4::config::v1::P4Info p4info)
      : engine_(engine), p4info_(std::move(p4info)) {}

  // Throws P4::Refusal, or std::out_of_range for names that the program does not have.
  void write(const p4::v1::Update& update);
  void commit() { engine_.tables().commit(); }

  // As the vectors write them: a key as JSON, packets and bytes; without those that are 0.
  std::map<std::string, P4::Counts> counters();
  // Front of the frame as metadata, in hex without leading zeros, and the rest.
  struct PacketIn {
    std::map<std::string, std::string> metadata;
    std::string payload;
  };
  PacketIn packetIn(const std::string& frame) const;
  std::string packetOut(const p4::v1::PacketOut& packet) const;
  // A sample's fields in hex, without leading zeros.
  std::vector<std::string> fieldsOf(const P4::DigestList& list, const std::string& sample) const;
  uint32_t digestId(uint32_t learnList) const;

 private:
  void writeEntry(const p4::v1::Update& update);
  void writeMember(const p4::v1::Update& update);
  void writeGroup(const p4::v1::Update& update);
  void writeReplication(const p4::v1::Update& update);
  P4::EntryKey keyOf(const p4::v1::TableEntry& entry) const;
  P4::ActionSpec actionOf(const p4::v1::Action& action, uint32_t table) const;
  P4::ActionSpec memberActionOf(const p4::v1::Action& action, uint32_t profile) const;
  P4::Target targetOf(const p4::v1::TableAction& action, uint32_t table) const;
  uint32_t tableOf(uint32_t id) const;
  uint32_t profileOf(uint32_t id) const;
  const p4::config::v1::Table& tableInfo(uint32_t id) const;

  P4::Engine& engine_;
  p4::config::v1::P4Info p4info_;
  std::vector<p4::v1::TableEntry> written_;
};

std::string hexOf(const std::string& bytes);
std::string bytesOf(const std::string& hex);
std::string trimmedHex(const std::string& bytes);

}  // namespace P4Test
