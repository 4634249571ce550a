// Pipeline files spoilt in a thousand ways: none ends the agent, and the tool's check foretells the
// outcome of each.
#include <cjson/cJSON.h>

#include <random>

#include "P4Runtime/pipeline/ParsingStatus.h"
#include "p4/tmp/p4config.pb.h"
#include "pipeline/PipelineCheck.h"
#include "platform/vela/Json.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

class Spoiler {
 public:
  explicit Spoiler(uint32_t seed) : random_(seed) {}

  void spoil(p4::v1::SetForwardingPipelineConfigRequest& request) {
    do {
      const uint32_t what = below(8);
      if (what == 0) spoilBytes(*request.mutable_config()->mutable_p4_device_config());
      if (what == 1) spoilMessage(request);
      if (what >= 2 && what < 5) spoilMessage(*request.mutable_config()->mutable_p4info());
      if (what >= 5) spoilDevice(request);
    } while (below(4) == 0);
  }

 private:
  uint32_t below(uint32_t limit) { return std::uniform_int_distribution(0u, limit - 1)(random_); }

  // Mostly small, and at the edges of some width.
  int64_t number() {
    constexpr int64_t edges[] = {0,          1,
                                 -1,         7,
                                 8,          9,
                                 16,         17,
                                 24,         25,
                                 32,         33,
                                 48,         128,
                                 255,        256,
                                 1 << 16,    1 << 17,
                                 INT32_MAX,  INT32_MIN,
                                 UINT32_MAX, int64_t{1} << 32,
                                 0x02000001, 0x02000007,
                                 0x01000001, 0x11000001};
    return edges[below(std::size(edges))];
  }

  std::string text() {
    static const char* const texts[] = {"",
                                        "exact",
                                        "acl",
                                        "exact_type",
                                        "U8",
                                        "U16",
                                        "U32",
                                        "U64",
                                        "Bytes<4>",
                                        "IpAddr",
                                        "EthAddr",
                                        "IpGenPrefix",
                                        "PrefixLen",
                                        "TABLE_CLASS_ACTION_PROFILE_GROUP",
                                        "key a : U8;",
                                        "0a",
                                        "0",
                                        "\xc3\xa4 \"quoted\"\n",
                                        "a/b",
                                        "SELECT 1",
                                        "."};
    return below(20) == 0 ? std::string(5000, 'x') : texts[below(std::size(texts))];
  }

  void spoilBytes(std::string& bytes) {
    if (bytes.empty()) return;
    if (below(3) == 0) return bytes.resize(below(bytes.size()));
    bytes[below(bytes.size())] ^= static_cast<char>(1 << below(8));
  }

  // Goes down to some field of some message, and changes it.
  void spoilMessage(Message& message) {
    const Reflection& reflection = *message.GetReflection();
    std::vector<const FieldDescriptor*> fields;
    reflection.ListFields(message, &fields);
    const auto& descriptor = *message.GetDescriptor();
    if (descriptor.field_count() == 0) return;
    const FieldDescriptor* field = fields.empty() || below(8) == 0
                                       ? descriptor.field(below(descriptor.field_count()))
                                       : fields[below(fields.size())];
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) return spoilSub(message, field);
    if (field->is_repeated() || below(4) == 0) return reflection.ClearField(&message, field);
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_INT32:
        return reflection.SetInt32(&message, field, static_cast<int32_t>(number()));
      case FieldDescriptor::CPPTYPE_UINT32:
        return reflection.SetUInt32(&message, field, static_cast<uint32_t>(number()));
      case FieldDescriptor::CPPTYPE_INT64:
        return reflection.SetInt64(&message, field, number());
      case FieldDescriptor::CPPTYPE_ENUM:
        return reflection.SetEnumValue(&message, field, static_cast<int>(below(8)));
      case FieldDescriptor::CPPTYPE_BOOL:
        return reflection.SetBool(&message, field, below(2) == 0);
      case FieldDescriptor::CPPTYPE_STRING:
        // Device ids and such stay; the device configuration is spoilt elsewhere.
        if (field->type() == FieldDescriptor::TYPE_STRING) {
          return reflection.SetString(&message, field, text());
        }
        return;
      default:
        return;
    }
  }

  void spoilSub(Message& message, const FieldDescriptor* field) {
    const Reflection& reflection = *message.GetReflection();
    if (field->is_map()) return;
    if (!field->is_repeated()) {
      if (below(10) == 0) return reflection.ClearField(&message, field);
      return spoilMessage(*reflection.MutableMessage(&message, field));
    }
    const int size = reflection.FieldSize(message, field);
    if (size == 0 || below(20) == 0) return void(reflection.AddMessage(&message, field));
    const int at = static_cast<int>(below(size));
    const uint32_t what = below(10);
    if (what == 0) return reflection.RemoveLast(&message, field);
    if (what == 1) {
      const std::string copy =
          reflection.GetRepeatedMessage(message, field, at).SerializeAsString();
      reflection.AddMessage(&message, field)->ParseFromString(copy);
      return;
    }
    if (what == 2) return reflection.SwapElements(&message, field, at, size - 1);
    spoilMessage(*reflection.MutableRepeatedMessage(&message, field, at));
  }

  void spoilDevice(p4::v1::SetForwardingPipelineConfigRequest& request) {
    p4::tmp::P4DeviceConfig device;
    if (!device.ParseFromString(request.config().p4_device_config())) return;
    std::string& json = *device.mutable_device_data();
    const Vela::Json document(cJSON_Parse(json.c_str()));
    if (!document || below(20) == 0) {
      spoilBytes(json);
    } else {
      spoilJson(document.get());
      char* const printed = cJSON_PrintUnformatted(document.get());
      json = printed;
      cJSON_free(printed);
    }
    request.mutable_config()->set_p4_device_config(device.SerializeAsString());
  }

  void spoilJson(cJSON* parent) {
    const int size = cJSON_GetArraySize(parent);
    if (size == 0) return;
    cJSON* item = cJSON_GetArrayItem(parent, static_cast<int>(below(size)));
    if (item->child != nullptr && below(12) != 0) return spoilJson(item);
    const uint32_t what = below(6);
    if (what == 0) return cJSON_Delete(cJSON_DetachItemViaPointer(parent, item));
    if (what == 1 && cJSON_IsArray(parent)) {
      cJSON_AddItemToArray(parent, cJSON_Duplicate(item, true));
      return;
    }
    cJSON* other = below(2) == 0 && !cJSON_IsString(item)
                       ? cJSON_CreateNumber(static_cast<double>(number()))
                   : below(8) == 0 ? cJSON_CreateArray()
                                   : cJSON_CreateString(text().c_str());
    if (item->string != nullptr) other->string = strdup(item->string);
    cJSON_ReplaceItemViaPointer(parent, item, other);
  }

  std::mt19937 random_;
};

class PipelineFuzz : public AgentTest {
 protected:
  bool ready() { return agent().tableInfo->tableInfoState() == P4TableInfoState::tableInfoReady; }

  static p4::v1::SetForwardingPipelineConfigRequest withQuery() {
    return pipelineOf(smallP4Info(),
                      replaced(smallDeviceConfig(), "\"queries\": []", R"("queries": [
      {"output_table_path": "out", "output_table_type": "constant_type", "query":
       "SELECT type, action, set_port_port FROM e WHERE type > :least",
       "input_tables": [{"table_key": "e", "table_value": "constant"}],
       "params": [{"param_key": "least", "param_value": "1"}]}])"));
  }
};

TEST_F(PipelineFuzz, AgentAndCheckAgreeOnEverySpoiltPipeline) {
  int runnable = 0;
  int refused = 0;
  for (uint32_t seed = 1; seed <= 1000; ++seed) {
    SCOPED_TRACE(seed);
    auto request = withQuery();
    Spoiler(seed).spoil(request);
    request.set_device_id(1);
    TheParsingStatus()->failureCleared();
    const Pipeline::Verdict verdict = Pipeline::checkPipeline(request);
    agent().pipelineIs(request, seed % 2 ? "spoilt" : "also spoilt");
    const Pipeline::Finding* error = verdict.findings.firstError();
    ASSERT_EQ(TheParsingStatus()->failed(), error != nullptr)
        << TheParsingStatus()->error() << TheParsingStatus()->latticeError()
        << (error ? Pipeline::findingText(*error) : "");
    ASSERT_TRUE(ready()) << "neither the new pipeline nor the one before";
    const std::string& running = agent().tableInfo->pipelineRequest();
    ASSERT_EQ(running == request.SerializeAsString(), error == nullptr);
    ++(error ? refused : runnable);
  }
  EXPECT_GT(runnable, 200);
  EXPECT_GT(refused, 200);
}

}  // namespace
}  // namespace P4Runtime
