// The command line of 'korvel pipeline'.
#include "cli/pipeline/PipelineCommand.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <iostream>
#include <memory>

#include "cli/pipeline/FindingsJson.h"
#include "cli/pipeline/PipelineShow.h"
#include "pipeline/PipelineBuild.h"
#include "pipeline/PipelineCheck.h"

namespace {

struct FileOptions {
  std::string path;
  bool json = false;
};

// CLI11 itself would wrap -1 around, and take too large a number for the largest.
std::string deviceIdFault(const std::string& text) {
  uint32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (error == std::errc() && end == text.data() + text.size() && !text.empty()) return "";
  return "'" + text + "' is no device id; expected a number from 0 to 4294967295";
}

void printFindings(std::ostream& out, const Pipeline::Findings& findings) {
  for (const Pipeline::Finding& finding : findings.list())
    out << Pipeline::findingText(finding) << '\n';
}

void runBuild(const Pipeline::BuildOptions& options) {
  Pipeline::Findings findings;
  Pipeline::buildPipeline(options, &findings);
  printFindings(std::cerr, findings);
  if (findings.hasErrors()) {
    std::cerr << options.outputPath << " was not written\n";
    throw CLI::RuntimeError(1);
  }
}

void runCheck(const FileOptions& options) {
  const Pipeline::Findings findings = Pipeline::checkPipelineFile(options.path).findings;
  if (options.json) {
    std::cout << Cli::findingsJson(options.path, findings);
  } else {
    printFindings(std::cout, findings);
    std::cout << options.path
              << (findings.hasErrors()      ? ": the agent cannot run this pipeline"
                  : findings.list().empty() ? ": nothing to object to"
                                            : ": runs, without what the warnings name")
              << '\n';
  }
  if (findings.hasErrors()) throw CLI::RuntimeError(1);
}

void addBuild(CLI::App& pipeline) {
  CLI::App* build = pipeline.add_subcommand("build", "Make a pipeline file from a P4Info");
  const auto options = std::make_shared<Pipeline::BuildOptions>();
  build->add_option("--p4info", options->p4InfoPath, "P4Info of the compiler: text, JSON or binary")
      ->required()
      ->type_name("FILE");
  build->add_option("--device-id", options->deviceId, "device id the agent is configured with")
      ->required()
      ->check(deviceIdFault)
      ->type_name("N");
  build
      ->add_option("--entries", options->entriesPath,
                   "constant entries: JSON, or a WriteRequest in text form")
      ->type_name("FILE");
  build->add_option("--queries", options->queriesPath, "queries to install, a JSON array")
      ->type_name("FILE");
  build->add_flag("--plain", options->plain,
                  "use no abilities that agents did not have from the beginning");
  build->add_option("--election-id", options->electionId, "election id to put into the file")
      ->type_name("[HIGH:]LOW");
  build->add_option("-o,--output", options->outputPath, "pipeline file to write")
      ->required()
      ->type_name("FILE");
  build->callback([options] { runBuild(*options); });
}

}  // namespace

void addPipelineCommand(CLI::App& app) {
  CLI::App* pipeline = app.add_subcommand("pipeline", "Make, check and show pipeline files");
  pipeline->require_subcommand(1);
  addBuild(*pipeline);

  CLI::App* check =
      pipeline->add_subcommand("check", "Say which parts of a pipeline would not work");
  const auto checkOptions = std::make_shared<FileOptions>();
  check->add_option("FILE", checkOptions->path, "pipeline file")->required();
  check->add_flag("--json", checkOptions->json, "print JSON");
  check->callback([checkOptions] { runCheck(*checkOptions); });

  CLI::App* show = pipeline->add_subcommand("show", "Print a pipeline for people");
  const auto showOptions = std::make_shared<FileOptions>();
  show->add_option("FILE", showOptions->path, "pipeline file")->required();
  show->add_flag("--json", showOptions->json, "print JSON");
  show->callback(
      [showOptions] { std::cout << Cli::shownPipeline(showOptions->path, showOptions->json); });
}
