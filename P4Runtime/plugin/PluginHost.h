// The functions that the agent offers one plugin, behind the pointer that it holds. A call from the
// wrong thread, after the end, or with bad arguments gets an error and changes nothing.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "P4Runtime/companion/Plugins.h"
#include "P4Runtime/plugin/PluginContext.h"
#include "P4Runtime/plugin/korvel_plugin.h"
#include "platform/vela/Timer.h"

namespace P4Runtime {

// Made and used on the reactor; post(), log() and trace() may be called from any thread. Never
// freed, since a plugin may keep its pointer for good.
class PluginHost {
 public:
  // Callbacks into the owner, on the reactor.
  struct Owner {
    // Runs the plugin's code; an exception that leaves it stops the plugin.
    std::function<void(const char* what, const std::function<void()>& code)> runGuarded;
    std::function<int(uint32_t id)> cleanupDone;
    std::function<int(uint32_t id)> disableDone;
  };
  static PluginHost& make(std::string name, const PluginContext& context,
                          Vela::Ptr<PluginStatus> status, Owner owner);
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  const korvel_host* functions() const { return &handle_.functions; }
  void open();    // calls are served
  void close();   // calls are refused, also posted ones; published values stay
  void retire();  // the owner goes away
  uint64_t refusedCalls() const { return refusedCalls_; }
  // The last line that the plugin logged since open().
  std::string lastWords() const;

 private:
  struct Handle {
    korvel_host functions;
    PluginHost* host;
  };
  PluginHost(std::string name, const PluginContext& context, Vela::Ptr<PluginStatus> status,
             Owner owner);
  ~PluginHost() = default;

  static PluginHost* of(const korvel_host* functions);
  template <typename Body>
  static auto serve(const korvel_host* functions, Body body) -> decltype(body(*of(functions)));
  int refusal() const;  // KORVEL_OK when calls of this thread are served

  int publish(const char* name, const char* value);
  long readAttribute(const char* path, const char* attribute, char* buffer, size_t size);
  int readCollection(const char* path, const char* attribute, korvel_entry_visitor visit,
                     void* cookie);
  int list(const char* path, korvel_name_visitor visit, void* cookie);
  int tableUse(korvel_table_visitor visit, void* cookie);
  int timerIs(uint32_t milliseconds, korvel_callback expired, void* cookie);
  int post(korvel_callback work, void* cookie);
  void doLog(const char* text);
  void doTrace(int level, const char* text) const;
  Vela::Ptr<Vela::Entity> entity(const char* path) const;

  // Constant after construction.
  Handle handle_;
  const std::string name_;
  const std::thread::id reactor_;

  // The reactor alone.
  std::unique_ptr<PluginContext> context_;  // null once the owner has gone
  Vela::Ptr<PluginStatus> status_;
  Owner owner_;
  std::unique_ptr<Vela::Timer> timer_;
  std::function<void()> expired_;
  uint64_t refusedCalls_ = 0;

  // Any thread, under mutex_.
  mutable std::mutex mutex_;
  bool open_ = false;
  uint64_t opened_ = 0;  // how often; work posted before the last open() is dropped
  std::string lastWords_;
};

}  // namespace P4Runtime
