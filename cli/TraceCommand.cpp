#include "cli/TraceCommand.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "cli/client/ClientOptions.h"
#include "platform/scrivel/TraceReader.h"
#include "platform/vela/Json.h"

namespace {

struct Options {
  std::string directory;
  std::string stateDirectory = defaultStateDirectory();
  Scrivel::TraceFilter filter;
  std::optional<size_t> last;
  std::string set;
  bool follow = false;
  bool files = false;
  bool json = false;
};

std::string traceDirectory(const Options& options) {
  if (!options.directory.empty()) return options.directory;
  const char* env = std::getenv("SCRIVELDIR");
  return env && *env ? env : options.stateDirectory;
}

std::string jsonRecord(const Scrivel::TraceRecord& record) {
  const Vela::Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "timeNs", std::to_string(record.timeNs).c_str());
  cJSON_AddNumberToObject(json.get(), "pid", static_cast<double>(record.pid));
  cJSON_AddNumberToObject(json.get(), "thread", record.threadId);
  cJSON_AddStringToObject(json.get(), "handle", record.handle.c_str());
  cJSON_AddNumberToObject(json.get(), "level", record.level);
  cJSON_AddStringToObject(json.get(), "text", record.text.c_str());
  return Vela::jsonLine(*json);
}

// Prints at most `last` records, the newest. Returns how many came, the filtered ones included.
size_t printRecords(Scrivel::TraceReader& reader, const Options& options,
                    std::optional<size_t> last) {
  auto records = reader.records();
  const size_t read = records.size();
  std::erase_if(records, [&](const auto& record) { return !options.filter.passes(record); });
  const size_t first = last && *last < records.size() ? records.size() - *last : 0;
  for (size_t i = first; i < records.size(); ++i) {
    fmt::print("{}\n", options.json ? jsonRecord(records[i]) : toLine(records[i]));
  }
  std::fflush(stdout);
  return read;
}

std::string levelsText(uint32_t mask) {
  std::string text;
  for (unsigned level = 0; level < 10; ++level) {
    if (mask >> level & 1) text += static_cast<char>('0' + level);
  }
  return text.empty() ? "off" : text;
}

void printFiles(Scrivel::TraceReader& reader, const Options& options) {
  for (const auto& file : reader.files()) {
    if (options.filter.pid && file.pid != *options.filter.pid) continue;
    fmt::print("{} pid {} {}\n", file.path, file.pid, file.alive ? "running" : "ended");
    for (const auto& handle : file.handles) {
      fmt::print("  {:<32} {}\n", handle.name, levelsText(handle.mask));
    }
  }
}

void setLevels(Scrivel::TraceReader& reader, const Options& options) {
  size_t changed = 0;
  for (const auto& file : reader.files()) {
    if (!file.alive || (options.filter.pid && file.pid != *options.filter.pid)) continue;
    Scrivel::setLevels(file.path, options.set);
    ++changed;
  }
  if (changed == 0) {
    throw std::runtime_error("no running process traces into " + traceDirectory(options) +
                             "; name another --state-dir or --dir");
  }
}

void run(const Options& options) {
  Scrivel::TraceReader reader(traceDirectory(options));
  if (!options.set.empty()) return setLevels(reader, options);
  if (options.files) return printFiles(reader, options);
  if (reader.files().empty() && !options.follow) {
    throw std::runtime_error("there are no traces in " + traceDirectory(options) +
                             "; name another --state-dir or --dir");
  }
  printRecords(reader, options, options.last);
  constexpr useconds_t quietUs = 200'000, busyUs = 20'000;
  while (options.follow) {
    usleep(printRecords(reader, options, std::nullopt) > 0 ? busyUs : quietUs);
  }
  if (reader.lost() > 0) {
    fmt::print(stderr, "{} older traces are overwritten\n", reader.lost());
  }
}

}  // namespace

void addTraceCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand("trace", "Show, follow and steer traces");
  const auto options = std::make_shared<Options>();
  addStateDirectoryOption(*command, options->stateDirectory);
  command
      ->add_option("--dir", options->directory,
                   "Where the traces are, when not in $SCRIVELDIR or the state directory")
      ->type_name("DIR");
  auto& filter = options->filter;
  command->add_option("--handle", filter.handle, "Of this handle only; * stands for anything");
  command->add_option("--level", filter.maxLevel, "Up to this level only")->check(CLI::Range(0, 9));
  command->add_option("--text", filter.text, "Only traces that contain this text");
  command->add_option("--pid", filter.pid, "Of this process only");
  command->add_option("-n,--last", options->last, "Only so many, the newest")->type_name("N");
  command->add_flag("-f,--follow", options->follow, "Go on with new traces as they come");
  command->add_flag("--files", options->files, "List trace files, their handles and levels");
  command->add_option("--set", options->set, "Change the levels of running processes")
      ->type_name("HANDLE/LEVELS,...");
  command->add_flag("--json", options->json, "Print JSON, a record a line");
  command->callback([options] { run(*options); });
}
