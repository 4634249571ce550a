/* An example plugin, written against korvel_plugin.h alone: publishes how full each table of the
 * pipeline is, how full it was at most, and how fast it fills. Settings: "period=SECONDS". */
#define _POSIX_C_SOURCE 200809L /* clock_gettime */

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "P4Runtime/plugin/korvel_plugin.h"

#define DEFAULT_PERIOD 5.0    /* seconds */
#define LONGEST_PERIOD 3600.0 /* seconds */

/* What is remembered of a table from one look to the next. */
typedef struct table {
  struct table* next;
  char* name;
  uint64_t entries;
  uint64_t peak;
  int seen; /* in the latest look */
} table;

typedef struct statistics {
  const korvel_host* host;
  double period; /* seconds between looks */
  struct timespec lastLook;
  double elapsed; /* seconds since the look before */
  table* tables;
} statistics;

static double seconds(struct timespec from, struct timespec to) {
  return (double)(to.tv_sec - from.tv_sec) + (double)(to.tv_nsec - from.tv_nsec) / 1e9;
}

static table* table_named(statistics* self, const korvel_table_use* use) {
  table* one;
  for (one = self->tables; one; one = one->next) {
    if (strcmp(one->name, use->name) == 0) return one;
  }
  one = calloc(1, sizeof *one);
  if (!one) return NULL;
  one->name = malloc(strlen(use->name) + 1);
  if (!one->name) {
    free(one);
    return NULL;
  }
  strcpy(one->name, use->name);
  one->entries = use->entries; /* former entries are no change */
  one->next = self->tables;
  self->tables = one;
  return one;
}

static void look_at(void* cookie, const korvel_table_use* use) {
  statistics* self = cookie;
  table* one = table_named(self, use);
  char text[160];
  char share[32] = "-";
  double rate;
  if (!one) return;
  rate = self->elapsed > 0 ? ((double)use->entries - (double)one->entries) / self->elapsed : 0;
  one->entries = use->entries;
  if (use->entries > one->peak) one->peak = use->entries;
  one->seen = 1;
  if (use->size > 0) snprintf(share, sizeof share, "%.1f%%", 100.0 * use->entries / use->size);
  snprintf(text, sizeof text, "entries=%llu size=%llu share=%s peak=%llu change=%+.1f/s",
           (unsigned long long)use->entries, (unsigned long long)use->size, share,
           (unsigned long long)one->peak, rate);
  self->host->publish(self->host, use->name, text);
}

static void forget(statistics* self, int seenToo) {
  table** link = &self->tables;
  while (*link) {
    table* one = *link;
    if (one->seen && !seenToo) {
      link = &one->next;
      continue;
    }
    self->host->publish(self->host, one->name, NULL);
    *link = one->next;
    free(one->name);
    free(one);
  }
}

static void look(void* cookie) {
  statistics* self = cookie;
  struct timespec now;
  table* one;
  clock_gettime(CLOCK_MONOTONIC, &now);
  self->elapsed = seconds(self->lastLook, now);
  self->lastLook = now;
  for (one = self->tables; one; one = one->next) one->seen = 0;
  self->host->table_use(self->host, look_at, self);
  forget(self, 0); /* tables of a former pipeline */
}

static int settings_changed(void* instance, const char* settings) {
  statistics* self = instance;
  double period = DEFAULT_PERIOD;
  char rest;
  if (*settings && (sscanf(settings, " period=%lf %c", &period, &rest) != 1 ||
                    !(period >= 0.01 && period <= LONGEST_PERIOD))) {
    self->host->log(self->host, "settings are \"period=SECONDS\", from 0.01 to 3600");
    return 1;
  }
  self->period = period;
  self->host->timer(self->host, (uint32_t)lround(1000 * period), look, self);
  return 0;
}

static int start(const korvel_host* host, const char* settings, void** instance) {
  statistics* self = calloc(1, sizeof *self);
  if (!self) return 1;
  self->host = host;
  clock_gettime(CLOCK_MONOTONIC, &self->lastLook);
  if (settings_changed(self, settings) != 0) {
    free(self);
    return 1;
  }
  *instance = self;
  return 0;
}

static void cleanup_requested(void* instance, uint32_t id) {
  statistics* self = instance;
  forget(self, 1);
  self->host->cleanup_done(self->host, id);
}

static void disable_requested(void* instance, uint32_t id) {
  statistics* self = instance;
  self->host->timer(self->host, 0, NULL, NULL);
  forget(self, 1);
  self->host->disable_done(self->host, id);
}

static void stop(void* instance) {
  statistics* self = instance;
  table* one = self->tables;
  while (one) {
    table* next = one->next;
    free(one->name);
    free(one);
    one = next;
  }
  free(self);
}

const korvel_plugin korvel_plugin_descriptor = {
    KORVEL_PLUGIN_INTERFACE_VERSION,
    "table-use",
    "1.0",
    start,
    settings_changed,
    cleanup_requested,
    disable_requested,
    stop,
};
