// Building a pipeline file.
#include "pipeline/PipelineBuild.h"

#include <google/protobuf/util/json_util.h>

#include <charconv>
#include <map>

#include "p4/config/v1/p4info.pb.h"
#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/CompiledEntries.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/EntriesFile.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ProfileCheck.h"
#include "pipeline/QueriesFile.h"
#include "pipeline/QueryCheck.h"
#include "pipeline/TypeCheck.h"

namespace Pipeline {
namespace {

uint64_t number64(std::string_view text, const std::string& whole) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && !text.empty()) return number;
  throw PipelineError("election id " + quoted(whole) +
                      " is no number of 64 bits, nor HIGH:LOW with two of them");
}

void electionIdIs(const std::string& text, p4::v1::SetForwardingPipelineConfigRequest* request) {
  if (text.empty()) return;
  const size_t colon = text.find(':');
  const std::string_view all = text;
  p4::v1::Uint128* id = request->mutable_election_id();
  if (colon != std::string::npos) id->set_high(number64(all.substr(0, colon), text));
  id->set_low(number64(colon == std::string::npos ? all : all.substr(colon + 1), text));
}

// A table that only the program fills stays empty without entries; one that is too small takes
// fewer.
void checkEntryCounts(const P4InfoLookup& index, const PipelineLayout& layout,
                      const std::vector<ConstantEntry>& entries, Findings* findings) {
  std::map<uint32_t, size_t> counts;
  for (const ConstantEntry& entry : entries) ++counts[entry.tableId];
  for (const auto& table : index.p4Info().tables()) {
    if (layout.table({TableKind::match, table.preamble().id()}) == nullptr) continue;
    const std::string object = "table " + table.preamble().name();
    const size_t count = counts[table.preamble().id()];
    if (table.has_initial_entries() && count == 0) {
      findings->warning(object,
                        "has entries in the P4 program, but none were given; add the"
                        " entries file of the compiler with --entries");
    }
    if (table.size() > 0 && count > static_cast<uint64_t>(table.size())) {
      findings->warning(object, "has room for " + std::to_string(table.size()) + " entries, but " +
                                    std::to_string(count) + " constant entries were given");
    }
  }
}

// Those of tables whose entries controllers may change and delete. Returns whether there are any.
bool markInitial(const P4InfoLookup& index, std::vector<ConstantEntry>* entries) {
  bool any = false;
  for (ConstantEntry& entry : *entries) {
    const p4::config::v1::Table* table = index.table(entry.tableId);
    entry.isInitial = table->has_initial_entries() && !table->is_const_table();
    any |= entry.isInitial;
  }
  return any;
}

}  // namespace

void buildRequest(const BuildOptions& options, p4::v1::SetForwardingPipelineConfigRequest* request,
                  Findings* findings) {
  request->set_device_id(options.deviceId);
  request->set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  electionIdIs(options.electionId, request);
  const p4::config::v1::P4Info& p4Info = request->config().p4info();
  const P4InfoLookup index(p4Info);
  checkP4Info(index, findings, options.isPush);
  if (findings->hasErrors()) return;

  checkProfiles(index, findings);
  Extensions extensions = options.plain ? Extensions{} : extensionsFor(p4Info);
  extensions.packetHeaders |= options.isPush && namesEgressPort(p4Info);
  const P4InfoLookup all(p4Info, extensions);
  const PipelineLayout layout = pipelineLayout(all, extensions, findings, options.tableNames);
  std::vector<ConstantEntry> entries;
  const P4InfoLookup withEntities(p4Info, {.entities = extensions.entities});
  if (!options.entriesPath.empty())
    entries = readConstantEntries(options.entriesPath, withEntities, layout, findings);
  else if (!options.program.empty())
    entries = readCompiledEntries(options.program, index, layout, findings);
  checkEntryCounts(index, layout, entries, findings);
  if (!options.program.empty()) extensions.initialEntries = markInitial(index, &entries);
  DeviceConfig device = deviceConfig(layout, extensions, entries);
  if (!options.queriesPath.empty()) {
    readQueriesFile(options.queriesPath, &device.types, &device.queries);
  }
  checkQueries(device, checkTypes(device, findings), findings);
  if (findings->hasErrors()) return;

  p4::tmp::P4DeviceConfig deviceConfig;
  deviceConfig.set_device_data(deviceConfigText(device));
  request->mutable_config()->set_p4_device_config(deviceConfig.SerializeAsString());
}

void buildPipeline(const BuildOptions& options, Findings* findings) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  readP4Info(options.p4InfoPath, request.mutable_config()->mutable_p4info(), findings);
  buildRequest(options, &request, findings);
  if (findings->hasErrors()) return;
  fileContentsIs(options.outputPath, request.SerializeAsString());
}

}  // namespace Pipeline
