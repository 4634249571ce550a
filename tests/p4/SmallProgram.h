// Compiled programs of a few lines, put together from the parts that a test is about.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/p4/RandomProgram.h"

namespace P4Test {

// Standard metadata, a parser that begins in the state "start", and two pipelines. Parts are JSON.
class SmallProgram {
 public:
  void header(const std::string& name, const std::vector<TestField>& fields, bool metadata = false);
  void another(const std::string& name, const std::string& like);  // header of the same type
  // Elements "NAME[0]", "NAME[1]" and so on.
  void stack(const std::string& name, const std::vector<TestField>& fields, size_t size);
  void state(const std::string& name, const std::string& ops, const std::string& key = "[]",
             const std::string& transitions =
                 R"([{"type":"default","value":null,"mask":null,"next_state":null}])");
  // An action without parameters that every packet meets, from its calls; then on to `next`.
  void ingressAction(const std::string& calls, const std::string& next = "");
  void egressAction(const std::string& calls);
  // An action of the program, to be used by tables; returns its id.
  size_t action(const std::string& name, const std::string& parameters, const std::string& calls);
  void table(const std::string& json) { tables_.push_back(json); }  // behind ingressAction
  void section(const std::string& name, const std::string& json) { sections_[name] = json; }
  void deparse(const std::vector<std::string>& headers) { order_ = headers; }

  std::string json() const;

 private:
  void addHeader(const std::string& name, const std::string& type, bool metadata);
  void addType(const std::string& name, const std::vector<TestField>& fields);

  std::vector<std::string> types_, headers_, stacks_, states_, actions_, tables_, egressTables_;
  std::vector<std::string> order_;
  std::map<std::string, std::string> sections_;
  std::string first_, egressFirst_;
};

// Calls and operands, for short.
std::string call(const std::string& op, const std::vector<std::string>& parameters);
std::string field(const std::string& header, const std::string& name);
std::string hex(uint64_t value);
std::string object(const std::string& type, const std::string& name);

}  // namespace P4Test
