#include "P4Runtime/agent/AccountLog.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

#include "P4Runtime/monitoring/CodeNames.h"
#include "platform/vela/Failure.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

constexpr size_t longestText = 200;             // of each text that a client chose
constexpr std::string_view ownAddress = "own";  // of the agent's own calls
constexpr const char* journalPath = "/run/systemd/journal/socket";
// Lines of so long a time are written at once: a thread that is woken for each costs more than it.
constexpr std::chrono::milliseconds gathering{20};

std::string codeName(int code) {
  const auto index = static_cast<size_t>(code);
  return index < std::size(statusCodeNames) ? statusCodeNames[index] : std::to_string(code);
}

// With a byte more than is shown, so that the cut shows.
std::string clipped(const char* text) {
  return text ? std::string(text, strnlen(text, longestText + 1)) : "";
}

std::string plain(const std::string& text) { return Vela::plainLine(text, longestText); }

bool isOfName(char byte) {
  return std::isalnum(static_cast<unsigned char>(byte)) || std::strchr("/._-@+=*:", byte);
}

// A name that a client chose. One that says something else in a line, or ends like a part of it,
// stands in quotes.
std::string nameText(const std::string& name) {
  constexpr std::string_view ownWords[] = {"anybody", "agent", "default", "somewhere"};
  const bool isPlain = std::ranges::all_of(name, isOfName) && !name.ends_with(':') &&
                       std::ranges::find(ownWords, name) == std::end(ownWords);
  if (isPlain) return plain(name);
  std::string quoted = plain(name);
  std::ranges::replace(quoted, '"', '\'');
  return '"' + quoted + '"';
}

std::string whoText(const AccountRecord& record) {
  if (record.address == ownAddress) return "agent";
  return record.identity.empty() ? "anybody" : nameText(record.identity);
}

// Systemd sets the variable for services that it starts.
int journalSocket() {
  if (!std::getenv("JOURNAL_STREAM")) return -1;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, journalPath, sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

std::string timeText(std::chrono::system_clock::time_point when) {
  const auto micros =
      std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
  const std::time_t seconds = micros / 1'000'000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), micros % 1'000'000);
}

AccountLog*& TheAccountLog() {
  static AccountLog* log = nullptr;  // lives on: threads of the server outlive static destruction
  return log;
}

}  // namespace

AccountRecord::AccountRecord(const PIGrpcServerAccount_t& account,
                             std::chrono::system_clock::time_point when)
    : when(when),
      what(account.what),
      identity(clipped(account.identity)),
      address(clipped(account.address)),
      device(account.device_id),
      role(clipped(account.role)),
      detail(clipped(account.detail)),
      code(account.code),
      isRefused(account.is_refused != 0),
      reason(clipped(account.message)),
      durationUs(account.duration_us) {}

bool AccountRecord::isServedWrite() const { return std::strcmp(what, "Write") == 0 && !isRefused; }

std::string accountLine(const AccountRecord& record) {
  const std::string detail = plain(record.detail);
  const std::string reason = plain(record.reason);
  return fmt::format("{} {} {} {} {} device {} role {}: {}{}{} us{}{}", timeText(record.when),
                     record.what, codeName(record.code), whoText(record),
                     record.address.empty() ? "somewhere" : plain(record.address), record.device,
                     record.role.empty() ? "default" : nameText(record.role), detail,
                     detail.empty() ? "" : ", ", record.durationUs, reason.empty() ? "" : "; ",
                     reason);
}

AccountLog::AccountLog(const std::string& directory, Bounds bounds)
    : bounds_(bounds),
      journal_(journalSocket()),
      calls_(directory + "/accounts.log", bounds.fileBytes),
      refusals_(directory + "/accounts-refused.log", bounds.fileBytes),
      writes_(directory + "/accounts-writes.log", bounds.fileBytes),
      thread_(Vela::startThread("write the log of calls", [this] { run(); })) {}

AccountLog::~AccountLog() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  changed_.notify_one();
  thread_.join();
  flush();
  if (journal_ >= 0) close(journal_);
}

// Anybody may cause such lines, as often as he likes.
Vela::LineBudget::Verdict AccountLog::verdict(const AccountRecord& record) {
  using Vela::LineBudget;
  if (record.isServedWrite()) return LineBudget::Verdict::write;
  const std::string kind = record.isRefused ? "refused " : std::string(record.what) + ' ';
  std::string whose = kind + record.identity;
  if (budgets_.size() >= bounds_.budgets && !budgets_.contains(whose)) whose = kind + "others";
  LineBudget& budget =
      budgets_.try_emplace(whose, bounds_.calls, std::chrono::minutes(1)).first->second;
  return budget.take(std::chrono::steady_clock::now());
}

void AccountLog::add(const PIGrpcServerAccount_t& account) {
  using Verdict = Vela::LineBudget::Verdict;
  AccountRecord record(account, std::chrono::system_clock::now());
  const std::lock_guard lock(mutex_);
  const Verdict verdict = this->verdict(record);
  if (verdict == Verdict::silent) return;
  if (waiting_.size() >= bounds_.waiting) {
    ++lost_;
    return;
  }
  if (verdict == Verdict::last) {
    record.reason.insert(0, "more like it is not shown for a while; ");
  }
  waiting_.push_back(std::move(record));
  if (isIdle_) changed_.notify_one();
  isIdle_ = false;
}

void AccountLog::run() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    isIdle_ = waiting_.empty();
    changed_.wait(lock, [this] { return isEnding_ || !waiting_.empty(); });
    changed_.wait_for(lock, gathering, [this] { return isEnding_; });
    lock.unlock();
    flush();
    lock.lock();
  }
}

void AccountLog::flush() {
  const std::lock_guard files(files_);
  std::vector<AccountRecord> records;
  size_t lost = 0;
  {
    const std::lock_guard lock(mutex_);
    records.swap(waiting_);
    lost = std::exchange(lost_, 0);
  }
  write(records, lost);
}

void AccountLog::write(const std::vector<AccountRecord>& records, size_t lost) {
  std::string calls, refusals, writes;
  for (const AccountRecord& record : records) {
    const std::string line = accountLine(record);
    (record.isRefused ? refusals : record.isServedWrite() ? writes : calls) += line + '\n';
    // The journal of systemd drops all lines of a service that has too many.
    if (journal_ >= 0 && !record.isServedWrite()) tellJournal(record, line);
  }
  if (lost > 0) {
    calls += fmt::format("{} {} more calls; the file system was too slow for their lines\n",
                         timeText(std::chrono::system_clock::now()), lost);
  }
  if (!calls.empty()) calls_.write(calls);
  if (!refusals.empty()) refusals_.write(refusals);
  if (!writes.empty()) writes_.write(writes);
}

// A datagram of lines NAME=VALUE; the journal may drop it.
void AccountLog::tellJournal(const AccountRecord& record, const std::string& line) const {
  const std::string entry = fmt::format(
      "MESSAGE={}\nPRIORITY={}\nSYSLOG_IDENTIFIER=korvel\nKORVEL_CALL={}\nKORVEL_IDENTITY={}\n"
      "KORVEL_ADDRESS={}\nKORVEL_DEVICE={}\nKORVEL_ROLE={}\nKORVEL_OUTCOME={}\nKORVEL_DETAIL={}\n"
      "KORVEL_REASON={}\nKORVEL_DURATION_US={}\n",
      line, record.code == 0 ? 6 : 4, record.what, plain(record.identity), plain(record.address),
      record.device, plain(record.role), codeName(record.code), plain(record.detail),
      plain(record.reason), record.durationUs);
  send(journal_, entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void keepAccounts(const std::string& stateDirectory) {
  if (TheAccountLog()) return;
  TheAccountLog() = new AccountLog(stateDirectory, {});
  PIGrpcServerAccountantIs(
      [](const PIGrpcServerAccount_t* account, void*) { TheAccountLog()->add(*account); }, nullptr);
}

void accountHandshake(const std::string& reason) {
  if (!TheAccountLog()) return;
  TheAccountLog()->add({.what = "handshake",
                        .identity = "",
                        .address = "",
                        .device_id = 0,
                        .role = "",
                        .detail = "",
                        .code = 14,  // clients see UNAVAILABLE
                        .is_refused = 1,
                        .message = reason.c_str(),
                        .duration_us = 0});
}

void flushAccounts() {
  if (TheAccountLog()) TheAccountLog()->flush();
}

}  // namespace P4Runtime
