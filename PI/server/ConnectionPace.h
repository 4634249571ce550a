// How many new connections a second are worth a handshake.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>

namespace pi::server {

// A client that connects and goes, again and again, costs no more than the pace: a handshake costs
// a hundred times as much as closing the connection does. Used by one thread.
class ConnectionPace {
 public:
  using Clock = std::chrono::steady_clock;
  // The IPv4 address or the IPv6 network of a machine.
  using Machine = std::array<uint8_t, 16>;
  struct Rate {
    double atOnce;  // after a calm
    double perSecond;
  };
  static constexpr size_t kMostMachines = 4096;  // to know apart; the others share a rate

  ConnectionPace(Rate ofMachine, Rate ofAll) : ofMachine_(ofMachine), ofAll_(ofAll) {}

  // Whether the machine may have another connection. One that may not does not count.
  bool take(const Machine& machine, Clock::time_point now);

 private:
  struct Left {
    double connections;
    Clock::time_point at;
  };
  static Left refilled(Left left, const Rate& rate, Clock::time_point now);
  Left& of(const Machine& machine, Clock::time_point now);

  const Rate ofMachine_;
  const Rate ofAll_;
  Left all_{ofAll_.atOnce, {}};
  std::map<Machine, Left> machines_;  // that have less than they may have at once
};

}  // namespace pi::server
