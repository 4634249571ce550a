/* The interface between the Korvel agent and its plugins, in C99.
 *
 * A plugin is a shared library NAME.so in the agent's plugin directory. It exports one object,
 * `korvel_plugin_descriptor`, and includes this header alone.
 *
 * Threads: the agent calls a plugin on one thread, its reactor, and one call at a time. A call
 * should return within a millisecond or so: nothing else of the agent's runs meanwhile. Functions
 * of the host may be called on that thread only, from within a call of the agent's; elsewhere they
 * do nothing and return KORVEL_WRONG_THREAD. The exception is post(), with which threads of the
 * plugin's own get onto the reactor.
 *
 * Texts are UTF-8 and end with a zero byte. Those that the agent passes last for the call. */
#ifndef KORVEL_PLUGIN_H
#define KORVEL_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Raised whenever a plugin built for the former version could not be used any more. The agent
 * loads plugins of its own version only. */
#define KORVEL_PLUGIN_INTERFACE_VERSION 1u

/* Results of host functions. */
#define KORVEL_OK 0
#define KORVEL_WRONG_THREAD (-1)  /* not called on the reactor */
#define KORVEL_STOPPED (-2)       /* the plugin has been stopped */
#define KORVEL_BAD_ARGUMENT (-3)  /* a null pointer, a text too long, a number never asked for */
#define KORVEL_NOT_FOUND (-4)     /* no such path or attribute */
#define KORVEL_LIMIT_REACHED (-5) /* it has published as much as it may */

/* How full one table is. */
typedef struct korvel_table_use {
  const char* name;
  uint64_t entries; /* rows that it holds now */
  uint64_t size;    /* that the pipeline declares for it; 0: none */
} korvel_table_use;

typedef void (*korvel_entry_visitor)(void* cookie, const char* key, const char* value);
typedef void (*korvel_name_visitor)(void* cookie, const char* name);
typedef void (*korvel_table_visitor)(void* cookie, const korvel_table_use* use);
typedef void (*korvel_callback)(void* cookie);

/* The agent's services to a plugin. The pointer stays valid as long as the process lives; after
 * stop() all its functions return KORVEL_STOPPED. */
typedef struct korvel_host korvel_host;
struct korvel_host {
  uint32_t interface_version; /* KORVEL_PLUGIN_INTERFACE_VERSION of the agent */

  /* Shows `value` under `name` in the plugin's status, where `korvel get
   * p4runtime/status/plugin/NAME` finds it; a null value takes it away. At most 4096 names of up to
   * 255 bytes, values of up to 4095 bytes. */
  int (*publish)(const korvel_host* host, const char* name, const char* value);

  /* The clean-up, or the disabling, that was asked for with this number is complete. */
  int (*cleanup_done)(const korvel_host* host, uint32_t id);
  int (*disable_done)(const korvel_host* host, uint32_t id);

  /* Reads the state database: the text of the attribute of the entity at the path goes into
   * `buffer`, cut to size - 1 bytes and ended with a zero byte. Returns the length of the whole
   * text, or one of the errors above. */
  long (*read_attribute)(const korvel_host* host, const char* path, const char* attribute,
                         char* buffer, size_t size);
  /* Visits the entries of an attribute that is a collection, in ascending order of their keys. */
  int (*read_collection)(const korvel_host* host, const char* path, const char* attribute,
                         korvel_entry_visitor visit, void* cookie);
  /* Visits the names below a path, in ascending order. */
  int (*list)(const korvel_host* host, const char* path, korvel_name_visitor visit, void* cookie);
  /* Visits the tables of the running pipeline by name; none while there is no pipeline. */
  int (*table_use)(const korvel_host* host, korvel_table_visitor visit, void* cookie);

  /* Calls `expired` every so many milliseconds (at least 10), first after as many; 0 ends it. A
   * plugin has one timer. */
  int (*timer)(const korvel_host* host, uint32_t milliseconds, korvel_callback expired,
               void* cookie);

  /* From any thread: runs `work` on the reactor later, in the order posted; not at all when the
   * plugin is stopped before. */
  int (*post)(const korvel_host* host, korvel_callback work, void* cookie);

  /* From any thread. log() writes a line to the agent's standard error, for operators; trace()
   * leaves one in the agent's traces, at a level from 0 (rare and important) to 9. */
  void (*log)(const korvel_host* host, const char* text);
  void (*trace)(const korvel_host* host, int level, const char* text);
};

/* A plugin. Function pointers said to be optional may be null. A C++ exception that leaves
 * one of the functions counts as a failure: the agent stops the plugin, says so by name, and goes
 * on without it. */
typedef struct korvel_plugin {
  uint32_t interface_version; /* KORVEL_PLUGIN_INTERFACE_VERSION */
  const char* name;           /* that of the file, without ".so" */
  const char* version;        /* for people */

  /* Starts the plugin: when the agent does, and again each time the agent is enabled after a
   * disable that this plugin was asked for. `settings` is the text at p4runtime/config/plugin/NAME.
   * The value stored in *instance is passed to the other functions. Returns 0; anything else is a
   * failure, for which it should log() the reason. stop() is not called then. */
  int (*start)(const korvel_host* host, const char* settings, void** instance);

  /* Optional. The settings have changed. Returns 0, or anything else when it cannot use
   * them and goes on with the former ones; it should log() why. */
  int (*settings_changed)(void* instance, const char* settings);

  /* Optional. The agent was disabled and enabled again: give up the objects made of the former
   * pipeline, stay at work, and call cleanup_done(id), now or later. */
  void (*cleanup_requested)(void* instance, uint32_t id);

  /* Optional. The agent is being disabled, and ends once every plugin has called disable_done():
   * give up all that should not outlive the agent and call disable_done(id), now or later. There is
   * no time-out: a plugin that does not call it keeps the agent. */
  void (*disable_requested)(void* instance, uint32_t id);

  /* Optional. The plugin is stopped: because the agent was enabled again after it was asked to
   * disable itself (start() follows), or because one of its functions failed. Threads of its own
   * must have ended when this returns. Not called when the process ends. */
  void (*stop)(void* instance);
} korvel_plugin;

#define KORVEL_PLUGIN_EXPORT __attribute__((visibility("default")))

/* Defined by the plugin. */
extern KORVEL_PLUGIN_EXPORT const korvel_plugin korvel_plugin_descriptor;

#ifdef __cplusplus
}
#endif

#endif
