#include "P4Runtime/monitoring/Observed.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace P4Runtime {
namespace {

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Of the library that the agent is: it is loaded as the process begins.
const double startSeconds =
    std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();

uint64_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  uint64_t all = 0;
  uint64_t resident = 0;
  file >> all >> resident;
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

uint64_t openDescriptors() {
  std::error_code none;
  const std::filesystem::directory_iterator descriptors("/proc/self/fd", none);
  return static_cast<uint64_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace

std::vector<TableFill> tableFills(const P4TableInfo& tableInfo) {
  std::vector<TableFill> uses;
  for (const auto& [rid, table] : tableInfo.latticeTableInterfaceCollection().values()) {
    if (table->ready()) {
      uses.push_back({table->tableName(), table->rowCount(), tableInfo.maxTableSize(rid)});
    }
  }
  std::ranges::sort(uses, {}, &TableFill::name);
  return uses;
}

std::string attributeText(const Orrery::Database& database, const std::string& path,
                          const std::string& attribute) {
  const auto entity = database.entity(path);
  const Vela::AttributeBase* found = entity ? entity->attribute(attribute) : nullptr;
  return found ? found->text() : "";
}

ProcessUse processUse() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {residentBytes(), openDescriptors(), startSeconds,
          secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime)};
}

}  // namespace P4Runtime
