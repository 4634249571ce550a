// Plugins of tests, one a name, with its behaviour beside it. "probe" obeys its settings and
// publishes the host's result as "answer".
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "P4Runtime/plugin/korvel_plugin.h"

namespace {

constexpr std::string_view name = PLUGIN_NAME;

struct Instance {
  const korvel_host* host;
  uint32_t cleanupId = 0;  // asked for and not answered
  uint32_t disableId = 0;
  void answer(const std::string& text) const { host->publish(host, "answer", text.c_str()); }
};

std::string readAttribute(const korvel_host* host, const std::string& path,
                          const std::string& attribute) {
  char text[16] = "";
  const long size = host->read_attribute(host, path.c_str(), attribute.c_str(), text, sizeof text);
  return std::to_string(size) + " " + text;
}

void append(void* text, const char* word) { *static_cast<std::string*>(text) += word; }

std::string listed(const korvel_host* host, const std::string& path) {
  std::string names;
  const int answer = host->list(
      host, path.c_str(),
      [](void* text, const char* one) { append(text, (std::string(one) + " ").c_str()); }, &names);
  return names + std::to_string(answer);
}

std::string collected(const korvel_host* host, const std::string& path,
                      const std::string& attribute) {
  std::string entries;
  const int answer = host->read_collection(
      host, path.c_str(), attribute.c_str(),
      [](void* text, const char* key, const char* value) {
        append(text, (std::string(key) + "=" + value + " ").c_str());
      },
      &entries);
  return entries + std::to_string(answer);
}

std::string tables(const korvel_host* host) {
  std::string text;
  host->table_use(
      host,
      [](void* words, const korvel_table_use* use) {
        append(words, (std::string(use->name) + " " + std::to_string(use->entries) + "/" +
                       std::to_string(use->size) + " ")
                          .c_str());
      },
      &text);
  return text;
}

int flood(const korvel_host* host) {
  for (int i = 0; i < 10000; ++i) {
    const std::string one = "name " + std::to_string(i);
    if (const int answer = host->publish(host, one.c_str(), "value")) return answer;
  }
  return KORVEL_OK;
}

int fromAThread(Instance& self) {
  int answer = 0;
  std::thread([&] { answer = self.host->publish(self.host, "stolen", "value"); }).join();
  std::thread([&] {
    self.host->post(
        self.host, [](void* instance) { static_cast<Instance*>(instance)->answer("posted"); },
        &self);
  }).join();
  return answer;
}

int did(Instance& self, const std::string& settings) {
  std::istringstream words(settings);
  std::string verb, first, second;
  words >> verb >> first >> second;
  const korvel_host* host = self.host;
  if (verb == "throw") throw std::runtime_error("out of coffee");
  if (verb == "refuse") {
    host->log(host, "no such\nsetting");
    return 1;
  }
  if (verb == "read") self.answer(readAttribute(host, first, second));
  if (verb == "list") self.answer(listed(host, first));
  if (verb == "collection") self.answer(collected(host, first, second));
  if (verb == "tables") self.answer(tables(host));
  if (verb == "flood") self.answer(std::to_string(flood(host)));
  if (verb == "thread") self.answer(std::to_string(fromAThread(self)));
  if (verb == "done") self.answer(std::to_string(host->cleanup_done(host, std::stoul(first))));
  if (verb == "null") {
    const bool refused =
        host->publish(host, nullptr, "") < 0 && host->list(host, "", nullptr, nullptr) < 0 &&
        host->publish(host, std::string(256, 'x').c_str(), "") < 0 &&
        host->timer(host, 50, nullptr, nullptr) < 0 && host->publish(nullptr, "name", "value") < 0;
    self.answer(refused ? "refused" : "taken");
  }
  if (verb == "timer") {
    host->timer(
        host, 10,
        [](void* instance) {
          auto* ticked = static_cast<Instance*>(instance);
          ticked->host->timer(ticked->host, 0, nullptr, nullptr);
          ticked->answer("ticked");
        },
        &self);
  }
  if (verb == "answer" && self.cleanupId) host->cleanup_done(host, self.cleanupId);
  if (verb == "answer" && self.disableId) host->disable_done(host, self.disableId);
  return 0;
}

int start(const korvel_host* host, const char* settings, void** instance) {
  if (name == "failing") {
    host->log(host, "no coffee");
    return 3;
  }
  if (name == "throwing") throw 7;
  *instance = new Instance{host};
  host->publish(host, "settings at start", settings);
  return 0;
}

int settingsChanged(void* instance, const char* settings) {
  return did(*static_cast<Instance*>(instance), settings);
}

// "never" never completes a request; "late" and "probe" do when their settings say "answer"; others
// at once.
void cleanupRequested(void* instance, uint32_t id) {
  auto* self = static_cast<Instance*>(instance);
  self->cleanupId = id;
  if (name == "prompt") self->host->cleanup_done(self->host, id);
}

void disableRequested(void* instance, uint32_t id) {
  auto* self = static_cast<Instance*>(instance);
  self->disableId = id;
  if (name == "prompt") self->host->disable_done(self->host, id);
}

void stop(void* instance) { delete static_cast<Instance*>(instance); }

}  // namespace

const korvel_plugin korvel_plugin_descriptor = {
    KORVEL_PLUGIN_INTERFACE_VERSION + (name == "outdated" ? 1 : 0),
    PLUGIN_NAME,
    "1.2",
    start,
    name == "never" ? nullptr : settingsChanged,
    cleanupRequested,
    disableRequested,
    stop};
