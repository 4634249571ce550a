#include "P4Runtime/agent/AccountLog.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "P4Runtime/monitoring/CodeNames.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

constexpr size_t longestText = 200;  // of each text that a client chose
constexpr size_t mostFileBytes = 4 << 20;
constexpr const char* journalPath = "/run/systemd/journal/socket";

std::string codeName(int code) {
  const auto index = static_cast<size_t>(code);
  return index < std::size(statusCodeNames) ? statusCodeNames[index] : std::to_string(code);
}

std::string plain(const char* text) { return Vela::plainLine(text ? text : "", longestText); }

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

}  // namespace

std::string accountLine(const PIGrpcServerAccount_t& account,
                        std::chrono::system_clock::time_point when) {
  const auto micros =
      std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
  const std::time_t seconds = micros / 1'000'000;
  const std::string who = plain(account.identity);
  const std::string role = plain(account.role);
  const std::string detail = plain(account.detail);
  const std::string reason = plain(account.message);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z {} {} {} {} device {} role {}: {}{}{} us{}{}",
                     fmt::gmtime(seconds), micros % 1'000'000, account.what, codeName(account.code),
                     who.empty() ? "anybody" : who, plain(account.address), account.device_id,
                     role.empty() ? "default" : role, detail, detail.empty() ? "" : ", ",
                     account.duration_us, reason.empty() ? "" : "; ", reason);
}

AccountLog::AccountLog(std::string path, size_t mostBytes)
    : path_(std::move(path)), mostBytes_(mostBytes), journal_(journalSocket()) {
  open();
}

AccountLog::~AccountLog() {
  if (fd_ >= 0) close(fd_);
  if (journal_ >= 0) close(journal_);
}

void AccountLog::open() {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  struct stat status {};
  bytes_ = fd_ >= 0 && fstat(fd_, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

void AccountLog::add(const PIGrpcServerAccount_t& account) {
  const std::string line = accountLine(account, std::chrono::system_clock::now());
  {
    const std::lock_guard lock(mutex_);
    write(line + '\n');
  }
  if (journal_ >= 0) tellJournal(account, line);
}

void AccountLog::write(const std::string& line) {
  if (bytes_ + line.size() > mostBytes_ || fd_ < 0) {
    if (fd_ >= 0) {
      close(fd_);
      std::rename(path_.c_str(), (path_ + ".1").c_str());
    }
    open();
  }
  if (fd_ < 0 || ::write(fd_, line.data(), line.size()) < 0) return;
  bytes_ += line.size();
}

// A datagram of lines NAME=VALUE; the journal may drop it.
void AccountLog::tellJournal(const PIGrpcServerAccount_t& account, const std::string& line) const {
  const std::string entry = fmt::format(
      "MESSAGE={}\nPRIORITY={}\nSYSLOG_IDENTIFIER=korvel\nKORVEL_CALL={}\nKORVEL_IDENTITY={}\n"
      "KORVEL_ADDRESS={}\nKORVEL_DEVICE={}\nKORVEL_ROLE={}\nKORVEL_OUTCOME={}\nKORVEL_DETAIL={}\n"
      "KORVEL_REASON={}\nKORVEL_DURATION_US={}\n",
      line, account.code == 0 ? 6 : 4, account.what, plain(account.identity),
      plain(account.address), account.device_id, plain(account.role), codeName(account.code),
      plain(account.detail), plain(account.message), account.duration_us);
  send(journal_, entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void keepAccounts(const std::string& stateDirectory) {
  static auto* log = new AccountLog(stateDirectory + "/accounts.log", mostFileBytes);
  PIGrpcServerAccountantIs([](const PIGrpcServerAccount_t* account, void*) { log->add(*account); },
                           nullptr);
}

}  // namespace P4Runtime
