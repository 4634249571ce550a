// The account of who did what: a line a call in a file of bounded size, and in systemd's journal.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

#include "PI/proto/pi_server_account.h"

namespace P4Runtime {

// "2026-11-22T20:00:00.123456Z Write OK spiffe://lab/a ipv4:192.0.2.1:5000 device 1 role default:
// 3 updates, 512 us"; of other calls with the reason at the end.
std::string accountLine(const PIGrpcServerAccount_t& account,
                        std::chrono::system_clock::time_point when);

// Thread-safe. Each line is in the file when add() returns. A file that is full becomes NAME.1, in
// place of the former one. Without room a line is lost.
class AccountLog {
 public:
  // Of the running agent. Goes on at the end of a file that is there.
  AccountLog(std::string path, size_t mostBytes);
  ~AccountLog();
  AccountLog(const AccountLog&) = delete;
  AccountLog& operator=(const AccountLog&) = delete;

  void add(const PIGrpcServerAccount_t& account);

 private:
  void open();
  void write(const std::string& line);
  void tellJournal(const PIGrpcServerAccount_t& account, const std::string& line) const;

  const std::string path_;
  const size_t mostBytes_;
  const int journal_;  // -1: the process does not run under systemd
  std::mutex mutex_;   // guards the members below
  int fd_ = -1;
  size_t bytes_ = 0;
};

// Keeps the account of the process's server from now on, for as long as the process lives.
void keepAccounts(const std::string& stateDirectory);

}  // namespace P4Runtime
