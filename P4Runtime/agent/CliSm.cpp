#include "P4Runtime/agent/CliSm.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/Json.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("CliSm");

constexpr std::chrono::seconds removalPeriod{30};
constexpr std::chrono::milliseconds takingTime{300};  // for a live requester to take its answer

std::vector<std::string> parsedArguments(const std::string& text) {
  std::vector<std::string> arguments;
  if (text.empty()) return arguments;
  const Vela::Json array = Vela::parseJson(text);
  if (!cJSON_IsArray(array.get())) {
    throw std::runtime_error("the request's arguments are no JSON array of strings");
  }
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, array.get()) {
    if (!cJSON_IsString(one)) {
      throw std::runtime_error("the request's arguments are not all strings");
    }
    arguments.push_back(one->valuestring);
  }
  return arguments;
}

std::string namesOf(const CliCommands& commands) {
  std::string names;
  for (const auto& [name, command] : commands) names += (names.empty() ? "" : ", ") + name;
  return names;
}

}  // namespace

CliSm::CliSm(Vela::ReactorLoop& loop, Vela::Ptr<CliConfigDir> configDir,
             Vela::Ptr<CliStatusDir> statusDir, CliCommands commands, Clock clock)
    : loop_(loop),
      configDir_(std::move(configDir)),
      statusDir_(std::move(statusDir)),
      commands_(std::move(commands)),
      clock_(std::move(clock)),
      oldAnswersTimer_(loop, [this] { doRemoveOldAnswers(); }),
      takenTimer_(loop,
                  [this] {
                    if (taken_) std::exchange(taken_, nullptr)();
                  }),
      alive_(std::make_shared<CliSm*>(this)) {
  requestsChange_ = configDir_->entityCollection().observeKeys(
      [this](const std::string& id) { handleRequest(id); });
  for (const std::string& id : configDir_->entityNames()) handleRequest(id);
  oldAnswersTimer_.start(removalPeriod, removalPeriod);
}

CliSm::~CliSm() { *alive_ = nullptr; }

void CliSm::handleRequest(const std::string& id) {
  SCRIVEL_TRACE(3, "handleRequest", " ", id);
  if (configDir_->entityHas(id)) {
    loop_.post([alive = alive_, id] {
      if (*alive) (*alive)->doExecute(id);
    });
    return;
  }
  answers_.erase(id);
  statusDir_->entityDel(id);
  maybeTellTaken();
}

void CliSm::doExecute(const std::string& id) {
  const Vela::Ptr<Vela::Entity> entity = configDir_->entity(id);
  const auto* request = dynamic_cast<const CliRequest*>(entity.get());
  if (!request || statusDir_->entityHas(id)) return;  // gone, or already answered
  SCRIVEL_TRACE(0, "doExecute ", id, " ", request->command(), " ", request->arguments());
  const auto answer = Vela::make<CliAnswer>(id);
  answer->commandIs(request->command());
  try {
    answer->textIs(runCommand(*request));
    answer->okIs(true);
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "doExecute ", id, " refused: ", e.what());
    answer->textIs(e.what());
  }
  if (configDir_->entity(id) != entity) return;  // the command itself removed the request
  answers_[id] = clock_();
  statusDir_->entityIs(id, answer);
  if (answers_.size() > mostAnswers) doRemoveOldAnswers();
}

std::string CliSm::runCommand(const CliRequest& request) const {
  const auto found = commands_.find(request.command());
  if (found == commands_.end()) {
    throw std::runtime_error(fmt::format("there is no command '{}'; there are: {}",
                                         request.command().substr(0, 80), namesOf(commands_)));
  }
  const CliCommand& command = found->second;
  const std::vector<std::string> arguments = parsedArguments(request.arguments());
  if (arguments.size() < command.fewest || arguments.size() > command.most) {
    throw std::runtime_error(
        fmt::format("{} arguments are not what it takes: {}", arguments.size(), command.usage));
  }
  return command.run(arguments);
}

// Removes the oldest answers until the rest are few and young enough.
void CliSm::doRemoveOldAnswers() {
  std::vector<std::pair<Time, std::string>> byAge;
  for (const auto& [id, given] : answers_) byAge.emplace_back(given, id);
  std::sort(byAge.begin(), byAge.end());
  size_t left = byAge.size();
  for (const auto& [given, id] : byAge) {
    if (left <= mostAnswers && clock_() - given < longestAnswer) return;
    SCRIVEL_TRACE(0, "nobody took the answer ", id);
    doRemove(id);
    --left;
  }
}

void CliSm::doRemove(const std::string& id) {
  configDir_->entityDel(id);
}  // handleRequest() follows

bool CliSm::awaitsTaker() const {
  const Time now = clock_();
  return std::any_of(answers_.begin(), answers_.end(),
                     [&](const auto& answer) { return now - answer.second < takingTime; });
}

void CliSm::whenAnswersAreTaken(std::function<void()> done) {
  if (!awaitsTaker()) return done();
  taken_ = std::move(done);
  takenTimer_.start(takingTime);
}

// On a later turn: the requester still waits for the outcome of its removal.
void CliSm::maybeTellTaken() {
  if (!taken_ || awaitsTaker()) return;
  takenTimer_.start(std::chrono::milliseconds(0));
}

}  // namespace P4Runtime
