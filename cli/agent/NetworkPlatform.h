// What the operating system gives the agent of its network: kernel devices, interfaces and their
// configuration, in the state database.
#pragma once

#include <memory>

#include "platform/orrery/Database.h"
#include "platform/vela/ReactorLoop.h"

// Makes its entities and their types when made, so that a configuration file may speak of them.
// Call with the activity lock held; loop and database must outlive it.
class NetworkPlatform {
 public:
  NetworkPlatform(Vela::ReactorLoop& loop, Orrery::Database& database);
  ~NetworkPlatform();

  // The device over which packets come to the agent, a TAP, is there from now until this dies; one
  // that is there already will do, whatever it is. Throws std::system_error.
  void cpuDeviceIs();
  // Devices are followed, and interfaces configured as the state database says, from now on. Where
  // the kernel gives no netlink socket there are no devices: a line on standard error says so.
  void start();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
