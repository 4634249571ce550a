#include "P4Runtime/agent/PolicyFile.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <utility>

#include "PI/proto/pi_server_policy.h"
#include "access/PolicyText.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PolicyFile");

constexpr std::chrono::milliseconds period(1000);

bool equal(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

// Empty, or why not.
std::string putInForce(const std::string& path) {
  try {
    const std::string text = Access::policyFileContent(path);
    const bool isTaken = PIGrpcServerPolicyIs(text.data(), text.size(), path.c_str()) == 0;
    return isTaken ? "" : PIGrpcServerPolicyError();
  } catch (const Access::PolicyError& e) {
    return e.what();
  }
}

bool isReadable(const std::string& path) {
  try {
    Access::policyFileContent(path);
    return true;
  } catch (const Access::PolicyError&) {
    return false;
  }
}

}  // namespace

Vela::Outcome checkPolicyFile(const std::string& path) {
  if (path.empty()) return {};
  try {
    Access::policyOfFile(path);
    return {};
  } catch (const Access::PolicyError& e) {
    return Vela::Outcome::failure(e.what());
  }
}

bool PolicyFile::Version::operator==(const Version& other) const {
  return equal(written, other.written) && equal(changed, other.changed) && number == other.number &&
         size == other.size;
}

PolicyFile::PolicyFile(std::string name, Vela::ReactorLoop& loop)
    : Entity(std::move(name)), timer_(loop, [this] { maybeReload(); }) {}

std::optional<PolicyFile::Version> PolicyFile::versionOf(const std::string& path) {
  struct stat told {};
  if (::stat(path.c_str(), &told) != 0) return std::nullopt;
  return Version{told.st_mtim, told.st_ctim, told.st_ino, told.st_size};
}

// The version is looked at before the content: a change between the two is found a second later.
void PolicyFile::pathIs(const std::string& path) {
  const auto version = versionOf(path);
  if (path.empty()) {
    timer_.stop();
    PIGrpcServerPolicyIs(nullptr, 0, nullptr);
  } else {
    const std::string why = putInForce(path);
    if (!why.empty()) throw Vela::Exception("the policy cannot be put in force: " + why);
    loadsIs(loads() + 1);
    timer_.start(period, period);
  }
  version_ = version;
  fileIs(path);
  faultIs("");
}

void PolicyFile::handlePath(const std::string& path) {
  try {
    pathIs(path);
  } catch (const Vela::Exception& e) {
    faultFound(e.what());
  }
}

void PolicyFile::maybeReload() {
  const auto version = versionOf(file());
  if (version == version_) return;
  const std::string why = putInForce(file());
  // A file that could not be read may be readable a second later, without a change.
  const bool isRead = why.empty() || isReadable(file());
  if (isRead) version_ = version;
  if (!why.empty()) return why == fault() ? void() : faultFound(why);
  SCRIVEL_TRACE(0, "maybeReload", " in force: ", file());
  std::fprintf(stderr, "korvel: the policy %s has changed and is in force\n", file().c_str());
  loadsIs(loads() + 1);
  faultIs("");
}

void PolicyFile::faultFound(const std::string& why) {
  SCRIVEL_TRACE(0, "faultFound", " ", why);
  std::fprintf(stderr, "korvel: the policy before it stays in force: %s\n", why.c_str());
  faultIs(why);
}

}  // namespace P4Runtime
