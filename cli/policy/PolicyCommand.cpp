// The command line of 'korvel policy'.
#include "cli/policy/PolicyCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <stdexcept>

#include "access/PolicyText.h"
#include "cli/policy/PolicyView.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace {

struct CheckOptions {
  std::string policyPath;
  std::string p4InfoPath;
};

struct ExplainOptions {
  std::string policyPath;
  std::string p4InfoPath;
  Cli::Wish wish;
  std::string role;
  std::string write;
  std::string read;
  bool push = false;
  bool packetOut = false;
  bool packetIn = false;
};

std::vector<Access::Object> objectsOfFile(const std::string& path) {
  p4::config::v1::P4Info p4Info;
  Pipeline::Findings findings;
  Pipeline::readP4Info(path, &p4Info, &findings);
  return Access::objectsOf(p4Info);
}

std::vector<Access::Object> withReplication(std::vector<Access::Object> objects) {
  objects.push_back(Access::replicationObject(Access::multicastGroups));
  objects.push_back(Access::replicationObject(Access::cloneSessions));
  return objects;
}

void runCheck(const CheckOptions& options) {
  const auto policy = Access::policyOfFile(options.policyPath);
  if (!options.p4InfoPath.empty()) {
    std::cout << Cli::objectsText(*policy, withReplication(objectsOfFile(options.p4InfoPath)));
  }
  std::cout << fmt::format("{}: policy \"{}\": {} deny rules, {} allow rules\n", options.policyPath,
                           policy->name, policy->denyRules.size(), policy->allowRules.size());
}

// Without a P4Info the name stands for a table, as it is.
Access::Object objectOf(const std::string& name, const std::string& p4InfoPath) {
  const bool isKnown = !p4InfoPath.empty();
  const auto objects =
      withReplication(isKnown ? objectsOfFile(p4InfoPath) : std::vector<Access::Object>());
  std::vector<std::string> names;
  for (const Access::Object& object : objects) {
    if (object.name == name || object.alias == name) return object;
    names.push_back(object.name);
  }
  if (!isKnown) return {Access::ObjectKind::table, 0, name, "", {}};
  throw std::runtime_error(p4InfoPath + " has no object \"" + name + '"' +
                           Pipeline::didYouMean(name, names));
}

Cli::Wish wishOf(const ExplainOptions& options, bool hasRole) {
  using Access::Operation;
  Cli::Wish wish = options.wish;
  if (hasRole) wish.role = options.role;
  if (options.push) wish.operation = Operation::push;
  if (options.packetOut) wish.operation = Operation::packetOut;
  if (options.packetIn) wish.operation = Operation::packetIn;
  if (!options.write.empty()) wish.operation = Operation::write;
  if (!options.read.empty()) wish.operation = Operation::read;
  const std::string& object = options.write + options.read;
  if (!object.empty()) wish.object = objectOf(object, options.p4InfoPath);
  if (!wish.path.empty() && !wish.path.starts_with('/')) {
    wish.path = "/p4.v1.P4Runtime/" + wish.path;
  }
  return wish;
}

void runExplain(const ExplainOptions& options, bool hasRole) {
  const auto policy = Access::policyOfFile(options.policyPath);
  const Cli::Explanation explanation = explained(*policy, wishOf(options, hasRole));
  std::cout << explanation.text;
  if (!explanation.allowed) throw CLI::RuntimeError(1);
}

void addCheck(CLI::App& policy) {
  CLI::App* check = policy.add_subcommand("check", "Say what is wrong with a policy file");
  const auto options = std::make_shared<CheckOptions>();
  check->add_option("FILE", options->policyPath, "policy file")->required();
  check->add_option("--p4info", options->p4InfoPath, "also say which of its objects rules name")
      ->type_name("FILE");
  check->callback([options] { runCheck(*options); });
}

void addExplain(CLI::App& policy) {
  CLI::App* explain =
      policy.add_subcommand("explain", "Say what a policy decides, and which rule does");
  const auto options = std::make_shared<ExplainOptions>();
  explain->add_option("--policy", options->policyPath, "policy file")
      ->required()
      ->type_name("FILE");
  explain->add_option("--identity", options->wish.identity, "of the caller; \"\" for none")
      ->required()
      ->type_name("TEXT");
  CLI::Option* role =
      explain->add_option("--role", options->role, "the default role unless given; reads: any role")
          ->type_name("NAME");
  explain->add_option("--p4info", options->p4InfoPath, "to know objects and their annotations")
      ->type_name("FILE");
  CLI::Option_group* what = explain->add_option_group("what", "What the caller wants to do");
  what->add_option("--write", options->write, "write this table or other object")
      ->type_name("NAME");
  what->add_option("--read", options->read, "read this table or other object")->type_name("NAME");
  what->add_option("--call", options->wish.path, "make this call: Write, or any path")
      ->type_name("PATH");
  what->add_flag("--push", options->push, "push a pipeline");
  what->add_flag("--packet-out", options->packetOut, "send packets");
  what->add_flag("--packet-in", options->packetIn, "get packets");
  what->require_option(1);
  explain->callback([options, role] { runExplain(*options, role->count() > 0); });
}

}  // namespace

void addPolicyCommand(CLI::App& app) {
  CLI::App* policy = app.add_subcommand("policy", "Check policies, and say what they decide");
  policy->require_subcommand(1);
  addCheck(*policy);
  addExplain(*policy);
}
