// The network of the operating system in the state database: kernel devices, interfaces and their
// configuration.
#pragma once

#include <memory>
#include <string>

#include "platform/orrery/Database.h"
#include "platform/vela/ReactorLoop.h"

// Makes its entities and their types when made, so that a configuration file may speak of them.
// Call with the activity lock held; loop and database must outlive it.
class NetworkPlatform {
 public:
  NetworkPlatform(Vela::ReactorLoop& loop, Orrery::Database& database);
  ~NetworkPlatform();

  // Makes the device over which packets come to the agent, a TAP, until this dies. An existing
  // device of the name will do, of any kind. Throws std::system_error.
  void createCpuDevice(const std::string& cpuDevice);
  // Follows devices, and configures interfaces as the state database says, from now on, except for
  // the CPU device. Without a netlink socket of the kernel there are no devices: a line on standard
  // error says so.
  void start(const std::string& cpuDevice);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
