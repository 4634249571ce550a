#include "P4Runtime/plugin/PluginHost.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PluginHost");

constexpr size_t mostPublished = 4096;
constexpr size_t longestName = 255;
constexpr size_t longestValue = 4095;
constexpr size_t mostVisited = 10000;
constexpr uint32_t shortestPeriod = 10;  // milliseconds
constexpr int highestLevel = 9;

// It is shown on terminals and in lines.
std::string printable(const char* text, size_t longest) {
  return Vela::plainLine({text, strnlen(text, longest)}, longest);
}

}  // namespace

PluginHost& PluginHost::make(std::string name, const PluginContext& context,
                             Vela::Ptr<PluginStatus> status, Owner owner) {
  static auto* all = new std::vector<PluginHost*>;  // keeps them reachable
  all->push_back(new PluginHost(std::move(name), context, std::move(status), std::move(owner)));
  return *all->back();
}

PluginHost::PluginHost(std::string name, const PluginContext& context,
                       Vela::Ptr<PluginStatus> status, Owner owner)
    : handle_{},
      name_(std::move(name)),
      reactor_(std::this_thread::get_id()),
      context_(std::make_unique<PluginContext>(context)),
      status_(std::move(status)),
      owner_(std::move(owner)) {
  using Host = const korvel_host*;
  handle_.host = this;
  handle_.functions.interface_version = KORVEL_PLUGIN_INTERFACE_VERSION;
  handle_.functions.publish = [](Host h, const char* name, const char* value) {
    return serve(h, [&](PluginHost& host) { return host.publish(name, value); });
  };
  handle_.functions.cleanup_done = [](Host h, uint32_t id) {
    return serve(h, [&](PluginHost& host) { return host.owner_.cleanupDone(id); });
  };
  handle_.functions.disable_done = [](Host h, uint32_t id) {
    return serve(h, [&](PluginHost& host) { return host.owner_.disableDone(id); });
  };
  handle_.functions.read_attribute = [](Host h, const char* path, const char* attribute,
                                        char* buffer, size_t size) {
    return serve(
        h, [&](PluginHost& host) { return host.readAttribute(path, attribute, buffer, size); });
  };
  handle_.functions.read_collection = [](Host h, const char* path, const char* attribute,
                                         korvel_entry_visitor visit, void* cookie) {
    return serve(
        h, [&](PluginHost& host) { return host.readCollection(path, attribute, visit, cookie); });
  };
  handle_.functions.list = [](Host h, const char* path, korvel_name_visitor visit, void* cookie) {
    return serve(h, [&](PluginHost& host) { return host.list(path, visit, cookie); });
  };
  handle_.functions.table_use = [](Host h, korvel_table_visitor visit, void* cookie) {
    return serve(h, [&](PluginHost& host) { return host.tableUse(visit, cookie); });
  };
  handle_.functions.timer = [](Host h, uint32_t milliseconds, korvel_callback expired,
                               void* cookie) {
    return serve(h, [&](PluginHost& host) { return host.timerIs(milliseconds, expired, cookie); });
  };
  handle_.functions.post = [](Host h, korvel_callback work, void* cookie) {
    PluginHost* host = of(h);
    return host ? host->post(work, cookie) : KORVEL_BAD_ARGUMENT;
  };
  handle_.functions.log = [](Host h, const char* text) {
    if (PluginHost* host = of(h)) host->doLog(text);
  };
  handle_.functions.trace = [](Host h, int level, const char* text) {
    if (PluginHost* host = of(h)) host->doTrace(level, text);
  };
}

PluginHost* PluginHost::of(const korvel_host* functions) {
  return functions ? reinterpret_cast<const Handle*>(functions)->host : nullptr;
}

template <typename Body>
auto PluginHost::serve(const korvel_host* functions, Body body) -> decltype(body(*of(functions))) {
  PluginHost* host = of(functions);
  if (!host) return KORVEL_BAD_ARGUMENT;
  if (const int refused = host->refusal()) return refused;
  const auto answer = body(*host);
  if (answer < 0) ++host->refusedCalls_;
  return answer;
}

int PluginHost::refusal() const {
  if (std::this_thread::get_id() != reactor_) return KORVEL_WRONG_THREAD;
  return open_ && context_ ? KORVEL_OK : KORVEL_STOPPED;
}

void PluginHost::open() {
  const std::lock_guard lock(mutex_);
  open_ = true;
  ++opened_;
  lastWords_.clear();
}

void PluginHost::close() {
  if (timer_) timer_->stop();  // it may be the one that is expiring
  expired_ = nullptr;
  const std::lock_guard lock(mutex_);
  open_ = false;
}

void PluginHost::retire() {
  close();
  const std::lock_guard lock(mutex_);
  timer_.reset();
  context_.reset();
  status_ = nullptr;
  owner_ = {};
}

std::string PluginHost::lastWords() const {
  const std::lock_guard lock(mutex_);
  return lastWords_;
}

int PluginHost::publish(const char* name, const char* value) {
  if (!name || !*name || strnlen(name, longestName + 1) > longestName) return KORVEL_BAD_ARGUMENT;
  const std::string shownName = printable(name, longestName);
  if (!value) {
    status_->publishedDel(shownName);
    return KORVEL_OK;
  }
  if (strnlen(value, longestValue + 1) > longestValue) return KORVEL_BAD_ARGUMENT;
  const bool isNew = !status_->publishedHas(shownName);
  if (isNew && status_->publishedCollection().values().size() >= mostPublished) {
    return KORVEL_LIMIT_REACHED;
  }
  status_->publishedIs(shownName, printable(value, longestValue));
  return KORVEL_OK;
}

// Null when nothing stands at the path, or the text is no path.
Vela::Ptr<Vela::Entity> PluginHost::entity(const char* path) const try {
  return path ? context_->stateDatabase.entity(path) : nullptr;
} catch (const Orrery::PathError&) {
  return nullptr;
}

long PluginHost::readAttribute(const char* path, const char* attribute, char* buffer, size_t size) {
  if (!path || !attribute || (!buffer && size > 0)) return KORVEL_BAD_ARGUMENT;
  const auto found = entity(path);
  const Vela::AttributeBase* wanted = found ? found->attribute(attribute) : nullptr;
  if (!wanted) return KORVEL_NOT_FOUND;
  const std::string text = wanted->text();
  if (size > 0) {
    const size_t copied = std::min(text.size(), size - 1);
    text.copy(buffer, copied);
    buffer[copied] = '\0';
  }
  return static_cast<long>(text.size());
}

// Visitors get a copy: they may change anything meanwhile.
int PluginHost::readCollection(const char* path, const char* attribute, korvel_entry_visitor visit,
                               void* cookie) {
  if (!path || !attribute || !visit) return KORVEL_BAD_ARGUMENT;
  const auto found = entity(path);
  const Vela::AttributeBase* wanted = found ? found->attribute(attribute) : nullptr;
  if (!wanted) return KORVEL_NOT_FOUND;
  for (const auto& [key, value] : wanted->entryTexts(mostVisited)) {
    visit(cookie, key.c_str(), value.c_str());
  }
  return KORVEL_OK;
}

int PluginHost::list(const char* path, korvel_name_visitor visit, void* cookie) {
  if (!path || !visit) return KORVEL_BAD_ARGUMENT;
  if (*path && !entity(path)) return KORVEL_NOT_FOUND;
  for (const std::string& name : context_->stateDatabase.children(path)) {
    visit(cookie, name.c_str());
  }
  return KORVEL_OK;
}

int PluginHost::tableUse(korvel_table_visitor visit, void* cookie) {
  if (!visit) return KORVEL_BAD_ARGUMENT;
  for (const TableUse& table : context_->tableUse()) {
    const korvel_table_use use{table.name.c_str(), table.entries, table.size};
    visit(cookie, &use);
  }
  return KORVEL_OK;
}

int PluginHost::timerIs(uint32_t milliseconds, korvel_callback expired, void* cookie) {
  if (milliseconds == 0) {
    if (timer_) timer_->stop();
    expired_ = nullptr;
    return KORVEL_OK;
  }
  if (!expired || milliseconds < shortestPeriod) return KORVEL_BAD_ARGUMENT;
  if (!timer_) {
    timer_ = std::make_unique<Vela::Timer>(context_->loop, [this] {
      const auto code = expired_;  // may set another one
      if (code) owner_.runGuarded("timer", code);
    });
  }
  expired_ = [expired, cookie] { expired(cookie); };
  timer_->start(std::chrono::milliseconds(milliseconds), std::chrono::milliseconds(milliseconds));
  return KORVEL_OK;
}

int PluginHost::post(korvel_callback work, void* cookie) {
  if (!work) return KORVEL_BAD_ARGUMENT;
  const std::lock_guard lock(mutex_);
  if (!open_ || !context_) return KORVEL_STOPPED;
  context_->loop.post([this, work, cookie, life = opened_] {
    if (refusal() != KORVEL_OK || life != opened_) return;
    owner_.runGuarded("posted work", [work, cookie] { work(cookie); });
  });
  return KORVEL_OK;
}

void PluginHost::doLog(const char* text) {
  if (!text) return;
  const std::string line = printable(text, longestValue);
  SCRIVEL_TRACE(0, "plugin ", name_, ": ", line);
  Vela::tellError("plugin {}: {}", name_, line);
  const std::lock_guard lock(mutex_);
  lastWords_ = line;
}

void PluginHost::doTrace(int level, const char* text) const {
  if (!text) return;
  const auto within = static_cast<unsigned>(std::clamp(level, 0, highestLevel));
  SCRIVEL_TRACE(within, "plugin ", name_, ": ", text);
}

}  // namespace P4Runtime
