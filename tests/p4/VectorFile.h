// A file of recorded packets, and the engine that they are played on.
#pragma once

#include <cjson/cJSON.h>

#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "tests/p4/Controller.h"

namespace P4Test {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string fileText(const std::string& path);
std::string stringOf(const cJSON* object, const char* key);  // "" when absent
uint32_t numberOf(const cJSON* object, const char* key);     // 0 when absent

class VectorFile {
 public:
  // Throws P4::ProgramError, or std::runtime_error when a file is missing.
  VectorFile(const std::string& vectors, const std::string& programs, const std::string& name);

  // The next line, or null at the end.
  Json next();
  void write(const cJSON& updates);  // and commits; throws P4::Refusal

  P4::Engine& engine() { return *engine_; }
  Controller& controller() { return *controller_; }
  uint32_t cpuPort() const { return cpuPort_; }
  bool hasPort(uint32_t port) const { return ports_.contains(port); }

 private:
  std::ifstream file_;
  std::unique_ptr<P4::Engine> engine_;
  std::unique_ptr<Controller> controller_;
  uint32_t cpuPort_ = 0;
  std::set<uint32_t> ports_;
};

}  // namespace P4Test
