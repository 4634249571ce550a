// The headers of controllers' packets: read from a P4Info, sized, walked, printed and read back.
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"

#include <gtest/gtest.h>

#include "platform/vela/ActivityLock.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using FieldText = Vela::TextForm<P4ControllerPktMetadataField>;

std::string fieldsOf(const P4ControllerPktMetadataEntry& header) {
  std::string text;
  for (const auto& [id, field] : header.metadataField()) {
    text += std::to_string(id) + ":" + field.name + "/" + std::to_string(field.bitwidth) + " ";
  }
  return text;
}

TEST(ControllerPktMetadata, ComesFromThePipelineAndGoesWithIt) {
  const Vela::ActivityLock lock;
  TempDir directory;
  AgentParts parts(directory.path());
  const P4ControllerPktMetadata& metadata = *parts.controllerPktMetadata;
  parts.tableInfoSm->handleP4InfoStr(R"({"actions": [], "tables": [], "controllerPacketMetadata": [
      {"preamble": {"id": 81, "name": "packet_in"},
       "metadata": [{"id": 7, "name": "late", "bitwidth": 7}, {"id": 2, "name": "early", "bitwidth": 9}]},
      {"preamble": {"id": 82, "name": "packet_out"}}]})");
  ASSERT_TRUE(metadata.metadataEntry("packet_in"));
  EXPECT_EQ(metadata.metadataEntry("packet_in")->id(), 81u);
  EXPECT_EQ(fieldsOf(*metadata.metadataEntry("packet_in")), "2:early/9 7:late/7 ");
  EXPECT_EQ(metadata.metadataEntry("packet_in")->metadataEntryFieldsBytes(), 3u)
      << "each field takes whole bytes of its own";
  ASSERT_TRUE(metadata.metadataEntry("packet_out"));
  EXPECT_EQ(metadata.metadataEntry("packet_out")->metadataEntryFieldsBytes(), 0u);
  {
    const Vela::ActivityLockReleased released;
    parts.pipelineIs(smallPipeline());
  }
  EXPECT_FALSE(metadata.metadataEntry("packet_in")) << "this pipeline has no headers";
}

TEST(ControllerPktMetadata, AFieldIsReadBackFromItsText) {
  EXPECT_EQ(FieldText::toText({3, "egress_port", 9}),
            "Value('P4Runtime::P4ControllerPktMetadataField', ** "
            "{'id': 3, 'name': egress_port, 'bitwidth': 9})");
  for (const char* name : {"port", "", "with, comma", "', 'bitwidth': 7})", ", 'name': "}) {
    const P4ControllerPktMetadataField field{4294967295u, name, 32};
    EXPECT_EQ(FieldText::fromText(FieldText::toText(field)), field) << name;
  }
  const std::string whole = FieldText::toText({1, "n", 2});
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(FieldText::fromText(whole.substr(0, size))) << size;
  }
}

}  // namespace
}  // namespace P4Runtime
