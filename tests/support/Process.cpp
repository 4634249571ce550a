// See Process.h.
#include "tests/support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/support/TempDir.h"

namespace TestSupport {
namespace {

std::system_error systemError(const std::string& what) {
  return {errno, std::generic_category(), what};
}

// Only calls that are safe between fork and exec of a process with threads.
[[noreturn]] void becomeCommand(char* const* arguments, char* const* environment, int output,
                                int error, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  const int input = open("/dev/null", O_RDONLY);
  dup2(input, 0);
  if (output >= 0) dup2(output, 1);
  if (error >= 0) dup2(error, 2);
  execvpe(arguments[0], arguments, environment);
  _exit(127);
}

int openedForAppending(const std::string& path) {
  if (path.empty()) return -1;
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (descriptor < 0) throw systemError("cannot write " + path);
  return descriptor;
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

pid_t spawned(const std::vector<std::string>& arguments, const std::string& outputPath,
              const std::string& errorPath, const std::vector<std::string>& environment) {
  std::vector<char*> all = pointers(environment);
  all.pop_back();
  for (char** variable = environ; *variable; ++variable) all.push_back(*variable);
  all.push_back(nullptr);
  const std::vector<char*> argv = pointers(arguments);
  const int output = openedForAppending(outputPath);
  const int error = openedForAppending(errorPath);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) becomeCommand(argv.data(), all.data(), output, error, parent);
  if (output >= 0) close(output);
  if (error >= 0) close(error);
  if (pid < 0) throw systemError("cannot start " + arguments.at(0));
  return pid;
}

int opened(pid_t pid) {
  const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (descriptor < 0) throw systemError("pidfd_open");
  return descriptor;
}

}  // namespace

void PrintTo(const ExitStatus& status, std::ostream* out) {
  *out << (status.signal ? fmt::format("ended by signal {}", status.signal)
                         : fmt::format("exit status {}", status.code));
}

Process::Process(const std::vector<std::string>& arguments, const std::string& outputPath,
                 const std::string& errorPath, const std::vector<std::string>& environment)
    : pid_(spawned(arguments, outputPath, errorPath, environment)), descriptor_(opened(pid_)) {}

Process::~Process() {
  kill();
  close(descriptor_);
}

void Process::signal(int number) {
  if (!exitStatus_) ::kill(pid_, number);
}

std::optional<ExitStatus> Process::exitStatus(std::chrono::microseconds timeout) {
  if (exitStatus_) return exitStatus_;
  pollfd ended{.fd = descriptor_, .events = POLLIN, .revents = 0};
  const timespec wait{.tv_sec = timeout.count() / 1000000,
                      .tv_nsec = timeout.count() % 1000000 * 1000};
  if (ppoll(&ended, 1, &wait, nullptr) <= 0) return std::nullopt;
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) throw systemError("waitpid");
  if (WIFSIGNALED(status)) {
    exitStatus_ = ExitStatus{.code = -1, .signal = WTERMSIG(status)};
  } else {
    exitStatus_ = ExitStatus{.code = WEXITSTATUS(status), .signal = 0};
  }
  return exitStatus_;
}

void Process::kill() {
  signal(SIGKILL);
  exitStatus();
}

CommandResult run(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment, std::chrono::milliseconds timeout) {
  const TempDir directory;
  const std::string output = directory.file("output");
  const std::string error = directory.file("error");
  Process process(arguments, output, error, environment);
  if (!process.exitStatus(timeout)) process.kill();
  return {*process.exitStatus(), fileText(output), fileText(error)};
}

std::string binaryPath(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string fileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

namespace {

// Keeps the port from the other tests that run now, until this process ends: they all bind a name
// for it, which needs no file.
bool reserve(uint16_t port) {
  sockaddr_un name{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string text = fmt::format("korvel-test-port-{}", port);
  std::ranges::copy(text, name.sun_path + 1);
  const auto size = offsetof(sockaddr_un, sun_path) + 1 + text.size();
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(descriptor, reinterpret_cast<sockaddr*>(&name), static_cast<socklen_t>(size)) == 0) {
    return true;  // and the descriptor stays open
  }
  close(descriptor);
  return false;
}

}  // namespace

uint16_t freePort() {
  static std::mt19937 random{std::random_device{}()};
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const auto port = static_cast<uint16_t>(20000 + random() % 10000);
    if (!reserve(port)) continue;
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int bound = bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address);
    close(descriptor);
    if (bound == 0) return port;
  }
  throw std::runtime_error("no free port between 20000 and 30000");
}

size_t residentBytes(pid_t pid) {
  std::ifstream file(fmt::format("/proc/{}/statm", pid));
  size_t total = 0;
  size_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace TestSupport
