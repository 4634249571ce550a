// The account of who did what: a line a call in files of bounded size, and in systemd's journal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "P4Runtime/agent/BoundedLog.h"
#include "PI/proto/pi_server_account.h"
#include "platform/vela/LineBudget.h"

namespace P4Runtime {

// The content of a PIGrpcServerAccount_t, with texts of its own, which are cut.
struct AccountRecord {
  AccountRecord(const PIGrpcServerAccount_t& account, std::chrono::system_clock::time_point when);

  // A call that was let in, and wrote: there may be thousands a second.
  bool isServedWrite() const;

  std::chrono::system_clock::time_point when;
  const char* what;  // a literal
  std::string identity;
  std::string address;
  uint64_t device = 0;
  std::string role;
  std::string detail;
  int code = 0;
  bool isRefused = false;
  std::string reason;
  uint64_t durationUs = 0;
};

// "2026-11-22T20:00:00.123456Z Write OK spiffe://lab/a ipv4:192.0.2.1:5000 device 1 role default:
// 3 updates, 512 us"; of other calls with the reason at the end. Names that could be taken for
// other parts of the line stand in quotes.
std::string accountLine(const AccountRecord& record);

// Thread-safe. A thread of its own writes the lines, so that calls do not wait for a disk. Refusals
// have files of their own, and so have Writes: neither a stranger nor a busy controller pushes out
// who has pushed, or become primary.
class AccountLog {
 public:
  struct Bounds {
    size_t fileBytes = 4 << 20;
    size_t waiting = 10'000;  // lines that are to be written; more are lost, and counted
    // Lines a minute of an identity: of each kind of call, and of refusals apart; served Writes
    // have no bound. Callers without an identity share theirs.
    size_t calls = 300;
    size_t budgets = 4'000;  // to count apart
  };

  // `directory`: of the running agent's state.
  AccountLog(const std::string& directory, Bounds bounds);
  ~AccountLog();  // writes the lines that wait
  AccountLog(const AccountLog&) = delete;
  AccountLog& operator=(const AccountLog&) = delete;

  // The line is in its file a moment later.
  void add(const PIGrpcServerAccount_t& account);
  // Returns when all lines that were added are in their files.
  void flush();

 private:
  Vela::LineBudget::Verdict verdict(const AccountRecord& record);
  void run();
  void write(const std::vector<AccountRecord>& records, size_t lost);
  void tellJournal(const AccountRecord& record, const std::string& line) const;

  const Bounds bounds_;
  const int journal_;  // -1: the process does not run under systemd
  std::mutex files_;   // guards the files; taken before mutex_
  BoundedLog calls_;
  BoundedLog refusals_;
  BoundedLog writes_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::vector<AccountRecord> waiting_;
  size_t lost_ = 0;
  std::map<std::string, Vela::LineBudget> budgets_;  // by kind of line, and identity
  bool isIdle_ = false;                              // the thread waits for changed_
  bool isEnding_ = false;
  std::thread thread_;
};

// Keeps the account of the process's server from now on, for as long as the process lives.
void keepAccounts(const std::string& stateDirectory);
// Of a client with which no TLS came about. Any thread.
void accountHandshake(const std::string& reason);
// For a clean end.
void flushAccounts();

}  // namespace P4Runtime
