// The pipeline comes up in steps driven by notices; a misfit stops it with a reason.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "P4Runtime/pipeline/ParsingStatus.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::HasSubstr;
using Request = p4::v1::SetForwardingPipelineConfigRequest;

class P4TableInfoSmTest : public AgentTest {
 protected:
  P4TableInfoSmTest() { TheParsingStatus()->failureCleared(); }

  bool ready() { return agent().tableInfo->tableInfoState() == P4TableInfoState::tableInfoReady; }
  // Another pipeline file in the running agent.
  void deviceConfigIs(const std::string& from, const std::string& to) {
    agent().pipelineIs(pipelineOf(smallP4Info(), replaced(smallDeviceConfig(), from, to)),
                       "other.pb.bin");
  }
  std::string text(const std::string& file) {
    std::ifstream in(agent().directory + "/" + file);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  const std::string& error() { return TheParsingStatus()->error(); }
};

TEST_F(P4TableInfoSmTest, BringsUpEveryTable) {
  EXPECT_TRUE(ready());
  EXPECT_FALSE(TheParsingStatus()->failed());
  for (uint32_t id = exactTable; id <= constantTable; ++id) {
    SCOPED_TRACE(id);
    const ResourceId rid{tableResource, id};
    ASSERT_TRUE(agent().tableInfo->latticeTableInterface(rid));
    EXPECT_TRUE(agent().tableInfo->latticeTableInterface(rid)->ready());
    EXPECT_TRUE(agent().tableInfo->rowConstructor(rid));
    EXPECT_EQ(agent().tableInfo->unprogrammableHas(rid), id == labelTable);
  }
  const auto& widths = agent().tableInfo->fieldBitwidths({tableResource, aclTable});
  EXPECT_TRUE(widths.fieldInNetworkByteOrder(0));   // an IpAddr column
  EXPECT_FALSE(widths.fieldInNetworkByteOrder(2));  // a U16 column
  EXPECT_THAT(text("p4info.json"), HasSubstr("\"matchType\""));
  EXPECT_EQ(text("device.json"), smallDeviceConfig());
  EXPECT_THAT(agent().tableInfo->tableFillText(), HasSubstr("exact 0/4\n"));
}

TEST_F(P4TableInfoSmTest, FileThatCannotBeUsedLeavesTheRunningPipelineAlone) {
  const uint64_t handle = agent().program(exactEntry(1));
  const std::string path = agent().directory + "/bad";
  const std::string pipe = agent().directory + "/pipe";
  const std::string huge = agent().directory + "/huge";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::ofstream(huge).close();
  std::filesystem::resize_file(huge, (size_t{64} << 20) + 1);
  const auto withAction = [](Request::Action action) {
    Request request = smallPipeline();
    request.set_action(action);
    return request.SerializeAsString();
  };
  const auto withDeviceBytes = [](const std::string& bytes) {
    Request request = smallPipeline();
    request.mutable_config()->set_p4_device_config(bytes);
    return request.SerializeAsString();
  };
  const struct {
    const char* what;
    std::string path;
    std::string content;
    std::string error;
    std::string hint = {};
  } cases[] = {
      {"no path", "", "", "Pipeline Configuration not available yet: ",
       "a controller may push one, or set forwardingPipelineConfigFilePath of"
       " p4runtime/config/system to a file that 'korvel pipeline build' has made"},
      {"no file", agent().directory + "/absent", "",
       "Failed to open file " + agent().directory + "/absent",
       "No such file or directory, set forwardingPipelineConfigFilePath of p4runtime/config/system"
       " to a file that 'korvel pipeline build' has made"},
      {"a P4Info in its place", path + "0", smallP4Info(),
       "Failed to read pipeline configuration file " + path + "0",
       "it is a P4Info; make a pipeline file of it with 'korvel pipeline build --p4info FILE"
       " --device-id N -o PIPELINE'"},
      {"a directory", agent().directory, "",
       "Failed to read pipeline configuration file " + agent().directory, "it is a directory"},
      {"a pipe", pipe, "", "Failed to read pipeline configuration file " + pipe,
       "it is no regular file"},
      {"a huge file", huge, "", "Failed to read pipeline configuration file " + huge,
       "it has 67108865 bytes; the server takes at most 67108864"},
      {"a cut file", path + "1", smallPipeline().SerializeAsString().substr(0, 1000),
       "Failed to read pipeline configuration file " + path + "1"},
      {"another device's", path + "2",
       pipelineOf(smallP4Info(), smallDeviceConfig(), 7).SerializeAsString(),
       "Device id in the pipeline configuration 7 does not match the configured device id 1"},
      {"an empty file", path + "3", "",
       "Device id in the pipeline configuration 0 does not match the configured device id 1",
       "it is empty"},
      {"one that is only to be verified", path + "4", withAction(Request::VERIFY),
       "the action of the pipeline file is VERIFY, which does not install it; it must be"
       " VERIFY_AND_COMMIT: make the file with 'korvel pipeline build'"},
      {"one without an action", path + "5", withAction(Request::UNSPECIFIED),
       "the action of the pipeline file is UNSPECIFIED, which does not install it; it must be"
       " VERIFY_AND_COMMIT: make the file with 'korvel pipeline build'"},
      {"no device configuration", path + "6", withDeviceBytes("\x0a\x05"),
       "Failed to read device configuration " + path + "6"},
      {"a P4Info without actions", path + "7",
       pipelineOf("", smallDeviceConfig()).SerializeAsString(),
       "Cannot find actions section in the P4Info file"},
      {"a profile that is not there", path + "8",
       pipelineOf(replaced(smallP4Info(), "implementation_id: 0x11000001",
                           "implementation_id: 0x11000099"),
                  smallDeviceConfig())
           .SerializeAsString(),
       "P4Info: table group refers to action profile 0x11000099, which is not there"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.path.starts_with(path)) std::ofstream(c.path, std::ios::binary) << c.content;
    {
      const Vela::ActivityLock lock;
      agent().config->forwardingPipelineConfigFilePathIs(c.path);
    }
    agent().settle();
    EXPECT_TRUE(TheParsingStatus()->failed());
    EXPECT_EQ(error(), c.error);
    EXPECT_EQ(TheParsingStatus()->hint(), c.hint);
    EXPECT_TRUE(ready());
  }
  EXPECT_EQ(codeOfAdd(exactEntry(1, 9)), OK);
  EXPECT_EQ(agent().lastHandle, handle);
}

TEST_F(P4TableInfoSmTest, BrokenDeviceConfigurationLeavesTheRunningPipelineAlone) {
  const struct {
    const char* what;
    const char* from;
    const char* to;
    const char* error;  // or a part of it
  } cases[] = {
      {"no JSON", "{\"p4rtc\"", "{p4rtc", "Cannot parse JSON file"},
      {"another root", "p4rtc", "other", "Cannot find root token in the pipeline file"},
      {"no types", "\"table_type_definitions\"", "\"defs\"", " to create table types"},
      {"a type without name", "\"table_type\": \"exact_type\", \"table_type_def\"",
       "\"table_type_def\"", "Cannot parse table_type to create table types"},
      {"a type that does not compile", "key ether_type : U16", "key ether_type : U17",
       "Compilation failed for exact_type"},
      {"a type defined twice", "\"table_type\": \"acl_type\", \"table_type_def\"",
       "\"table_type\": \"exact_type\", \"table_type_def\"",
       "Cannot parse table type exact_type: it is defined twice to create table types"},
      {"no tables", "\"tables\"", "\"tablets\"", "Cannot parse tables to create tables"},
      {"a table of no type", "\"table_type\": \"acl_type\",\n", "\"table_type\": \"other_type\",\n",
       "Cannot parse table acl: no definition of its type other_type"},
      {"a name twice", "\"table_name\": \"acl\"", "\"table_name\": \"exact\"",
       "stands there twice"},
      {"an id twice", "\"table_id\": 33554436", "\"table_id\": 33554433", "stands there twice"},
      {"no fields", "\"table_fields\": [{\"field_name\": \"label\"",
       "\"fields\": [{\"field_name\": \"label\"", "table_fields token is missing in JSON file"},
      {"another field type", "\"field_name\": \"ether_type\", \"field_type\": \"U16\"",
       "\"field_name\": \"ether_type\", \"field_type\": \"U32\"", "Cannot parse table exact"},
      {"a query without text", "\"queries\": []",
       "\"queries\": [{\"output_table_path\": \"out\", \"output_table_type\": \"exact_type\"}]",
       "Cannot parse query to create queries"},
      {"a query that is none", "\"queries\": []",
       "\"queries\": [{\"output_table_path\": \"out\", \"output_table_type\": \"exact_type\", "
       "\"query\": \"SELECT nothing\"}]",
       "Query compilation failed for out"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TheParsingStatus()->failureCleared();
    agent().pipelineIs(pipelineOf(smallP4Info(), replaced(smallDeviceConfig(), c.from, c.to)),
                       c.what);
    EXPECT_TRUE(TheParsingStatus()->failed());
    EXPECT_THAT(error(), HasSubstr(c.error));
    EXPECT_TRUE(ready());
  }
  agent().pipelineIs(smallPipeline(), "good again");
  EXPECT_TRUE(ready());
  EXPECT_FALSE(TheParsingStatus()->failed());
}

// Rows that controllers wrote must not keep the next start from serving.
TEST_F(P4TableInfoSmTest, QueryThatFailsAtTheRowsThereAreIsNoFailure) {
  agent().program(exactEntry(1));
  deviceConfigIs("\"queries\": []", R"("queries": [
      {"output_table_path": "out", "output_table_type": "exact_type",
       "query": "SELECT * FROM e WHERE abs(ether_type * 0 - 9223372036854775807 - 1) > 0",
       "input_tables": [{"table_key": "e", "table_value": "exact"}], "params": []}])");
  EXPECT_FALSE(TheParsingStatus()->failed()) << error();
  EXPECT_TRUE(ready());
  EXPECT_EQ(agent().services.queryStatusDir->queryStatus("out")->reason(), "integer overflow");
}

// A column longer than its field would be filled with the bytes behind the field.
TEST_F(P4TableInfoSmTest, TableWhoseTypeDoesNotFitItsP4InfoIsRefused) {
  const struct {
    const char* what;
    const char* p4Info;
    const char* otherP4Info;
    const char* why;
  } cases[] = {
      {"a shorter key field", "name: \"ether_type\" bitwidth: 16",
       "name: \"ether_type\" bitwidth: 8", "column \"ether_type\" of 2 bytes is not for 8 bits"},
      {"a key field less", "match_fields { id: 2 name: \"port\" bitwidth: 9 match_type: EXACT }",
       "", "no match field fills its key column \"port\""},
      {"a parameter less", "name: \"set_port\" } params { id: 1 name: \"port\" bitwidth: 9 }",
       "name: \"set_port\" } params { id: 1 name: \"port\" bitwidth: 9 } "
       "params { id: 2 name: \"x\" bitwidth: 8 }",
       "its action \"set_port\": it has 1 fields for 2 parameters"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    agent().pipelineIs(
        pipelineOf(replaced(smallP4Info(), c.p4Info, c.otherP4Info), smallDeviceConfig()), c.what);
    EXPECT_TRUE(ready()) << error();
    EXPECT_EQ(codeOfAdd(exactEntry(1)), UNIMPLEMENTED);
    EXPECT_THAT(message(), HasSubstr(c.why));
  }
}

// Nothing of it can be programmed, and controllers are told so, table by table.
TEST_F(P4TableInfoSmTest, PipelineWithoutAProgrammableTableComesUp) {
  const std::string empty =
      R"({"p4rtc": {"table_type_definitions": [], "tables": [], "queries": []}})";
  agent().pipelineIs(pipelineOf(smallP4Info(), empty), "empty");
  EXPECT_TRUE(ready()) << error();
  EXPECT_FALSE(TheParsingStatus()->failed()) << error();
  EXPECT_EQ(codeOfAdd(exactEntry(1)), UNIMPLEMENTED);
  EXPECT_THAT(message(), HasSubstr("table exact is not part of the pipeline's device config"));
}

TEST_F(P4TableInfoSmTest, ConstantEntriesThatCannotBeProgrammedAreLeftOut) {
  deviceConfigIs(R"("table_entries": [])", R"("table_entries": [
      {"key": "08000001", "action_id": 16777219, "action_params": ""},
      {"key": "08000200", "action_id": 16777219, "action_params": ""},
      {"key": "08000002", "action_id": 7, "action_params": ""}, {"key": 7},
      {"key": "08000003", "action_id": 16777217, "action_params": "0001"}])");
  EXPECT_TRUE(ready()) << error();
  const auto& entries = agent().tableInfo->constEntries({tableResource, exactTable}).entry();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].key, "08000001");
  EXPECT_EQ(entries[1].key, "08000003");
}

TEST_F(P4TableInfoSmTest, NewPipelineStartsFromNothing) {
  agent().program(exactEntry(1));
  agent().pipelineIs(pipelineOf(replaced(smallP4Info(), "size: 4", "size: 9"), smallDeviceConfig()),
                     "next");
  EXPECT_TRUE(ready());
  EXPECT_EQ(agent().tableInfo->maxTableSize({tableResource, exactTable}), 9u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u) << "its rows are there still";
}

// Two pipelines in one turn: the steps of the first must not be taken for steps of the second.
TEST_F(P4TableInfoSmTest, PipelineThatIsOvertakenNeverComesUp) {
  const auto write = [&](const std::string& name, const std::string& size) {
    const std::string path = agent().directory + "/" + name;
    std::ofstream(path, std::ios::binary)
        << pipelineOf(replaced(smallP4Info(), "size: 4", size), smallDeviceConfig())
               .SerializeAsString();
    const Vela::ActivityLock lock;
    agent().config->forwardingPipelineConfigFilePathIs(path);
  };
  for (int turns = 0; turns < 12; ++turns) {
    SCOPED_TRACE(turns);
    write("first" + std::to_string(turns), "size: 5");
    for (int turn = 0; turn < turns; ++turn) {
      agent().loop.post([this] { agent().loop.stop(); });
      agent().loop.run();
    }
    write("second" + std::to_string(turns), "size: 6");
    EXPECT_FALSE(ready());
    agent().settle();
    EXPECT_TRUE(ready()) << error();
    EXPECT_EQ(agent().tableInfo->maxTableSize({tableResource, exactTable}), 6u);
  }
}

// It came up beside a configuration that names the broken file, and took its failure back.
TEST_F(P4TableInfoSmTest, PipelineThatABrokenFileOvertakesNeverComesUp) {
  agent().begin();
  agent().pipelineIs(pipelineOf(replaced(smallP4Info(), "size: 4", "size: 5"), smallDeviceConfig()),
                     "waits for the Write");
  agent().pipelineIs({}, "broken");
  agent().end();
  agent().outcome();
  agent().settle();
  EXPECT_TRUE(ready());
  EXPECT_EQ(agent().tableInfo->maxTableSize({tableResource, exactTable}), 4u);
  EXPECT_TRUE(TheParsingStatus()->failed());
  EXPECT_EQ(codeOfAdd(exactEntry(1)), 0);
  EXPECT_EQ(TheWriteGate()->closedFor(), "");
}

TEST_F(P4TableInfoSmTest, QueriesComeUpWithTheirTables) {
  deviceConfigIs("\"queries\": []",
                 R"("queries": [{"output_table_path": "ports", "output_table_type": "exact_type",
       "query": "SELECT ether_type, port, action, set_port_port FROM e",
       "input_tables": [{"table_key": "e", "table_value": "exact"}],
       "params": [{"param_key": "p", "param_value": "1"}]}])");
  const auto query = agent().services.queryConfigDir->queryConfig("ports");
  ASSERT_TRUE(query);
  EXPECT_FALSE(query->oneShot());
  EXPECT_EQ(query->inputTable("e"), "exact");
  EXPECT_EQ(query->parameter("p"), "1");
}

TEST_F(P4TableInfoSmTest, FakedTypesMakeNoRowsYetAReadyModel) {
  setenv("LATTICE_TYPES_CREATION_FAKED", "1", 1);
  agent().pipelineIs(smallPipeline(), "faked");
  unsetenv("LATTICE_TYPES_CREATION_FAKED");
  EXPECT_TRUE(ready());
  EXPECT_FALSE(agent().tableInfo->rowConstructorHas({tableResource, exactTable}));
  EXPECT_EQ(codeOfAdd(exactEntry(1)), UNIMPLEMENTED);
}

TEST_F(P4TableInfoSmTest, CleanUpTakesTheConfigurationsBack) {
  agent().tableInfo->cleanupRequestIdInc(1);
  EXPECT_EQ(agent().tableInfo->cleanupResponseId(), 1u);
  EXPECT_TRUE(agent().services.typeConfigDir->typeConfigNames().empty());
}

}  // namespace
}  // namespace P4Runtime
