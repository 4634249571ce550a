// The end of a process that cannot go on.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace Vela {

// Prints one line, "PROGRAM: cannot go on: TROUBLE", on standard error and ends the process with
// status 1, at once: nothing is destroyed, and no shared-memory write that is half done is
// committed. From any thread.
[[noreturn]] void endProcess(std::string_view trouble) noexcept;

// Runs `work`; an exception that leaves it ends the process. For callbacks that return into C code
// and for the bodies of threads, which have no caller to catch it.
template <typename Work>
void guarded(const Work& work) noexcept {
  try {
    work();
  } catch (const std::exception& e) {
    endProcess(e.what());
  } catch (...) {
    endProcess("an exception of no known kind");
  }
}

// A thread that runs `body` guarded. Throws std::system_error, naming `purpose`, when the system
// has no thread to give.
std::thread startThread(const std::string& purpose, std::function<void()> body);

}  // namespace Vela
