#include "cli/switch/Child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
  Vela::UniqueFd read;
  Vela::UniqueFd write;
};

Pipe outputPipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("cannot make a pipe for a process's output");
  Pipe made{Vela::UniqueFd(ends[0]), Vela::UniqueFd(ends[1])};
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  return made;
}

std::vector<char*> argumentsOf(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  return arguments;
}

// Without the switch's line to its service manager, which is not for its processes.
std::vector<char*> environmentOfChild() {
  std::vector<char*> variables;
  for (char** one = environ; *one != nullptr; ++one) {
    const std::string_view text(*one);
    if (text.starts_with("NOTIFY_SOCKET=") || text.starts_with("WATCHDOG_")) continue;
    variables.push_back(*one);
  }
  variables.push_back(nullptr);
  return variables;
}

// In the child, between fork and exec: calls nothing that takes a lock or memory.
[[noreturn]] void become(char* const* arguments, char* const* environment, int output,
                         int inherited, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);  // it has died already
  setpgid(0, 0);
  signal(SIGPIPE, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int nothing = open("/dev/null", O_RDONLY);
  dup2(nothing, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  if (inherited >= 0) fcntl(inherited, F_SETFD, 0);
  execve(arguments[0], arguments, environment);
  const char* reason = strerrordesc_np(errno);
  for (const char* words : {"cannot run ", static_cast<const char*>(arguments[0]), ": ", reason}) {
    (void)!write(STDERR_FILENO, words, std::strlen(words));
  }
  _exit(127);
}

}  // namespace

std::string ChildEnd::text() const {
  if (signal == 0) return fmt::format("ended with status {}", status);
  return fmt::format("was ended by signal {} ({})", signal, strsignal(signal));
}

Child::Child(const std::vector<std::string>& command, int inherited) {
  const std::vector<char*> arguments = argumentsOf(command);
  const std::vector<char*> environment = environmentOfChild();
  Pipe pipe = outputPipe();
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ < 0) fail("cannot start a process");
  if (pid_ == 0) {
    become(arguments.data(), environment.data(), pipe.write.get(), inherited, self);
  }
  output_ = std::move(pipe.read);
  ending_ = Vela::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  if (ending_) return;
  const int error = errno;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  errno = error;
  fail("cannot watch a process");
}

Child::~Child() {
  if (end()) return;
  signal(SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::optional<ChildEnd> Child::end() {
  int status = 0;
  if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    end_ = WIFSIGNALED(status) ? ChildEnd{.signal = WTERMSIG(status)}
                               : ChildEnd{.status = WEXITSTATUS(status)};
  }
  return end_;
}

void Child::signal(int number) const {
  if (!end_) ::kill(pid_, number);
}
