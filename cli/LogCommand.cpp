#include "cli/LogCommand.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/client/ClientOptions.h"

namespace {

struct Options {
  std::string stateDirectory = defaultStateDirectory();
  std::optional<size_t> last;
  bool follow = false;
};

constexpr useconds_t pauseUs = 200'000;

ino_t inodeAt(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// A file of the log that grows, and gives way to another one when it is full.
class LogFile {
 public:
  explicit LogFile(std::string path) : path_(std::move(path)) { open(); }

  bool isOpen() const { return stream_.is_open(); }
  // The next whole line.
  std::optional<std::string> line() {
    std::string text;
    const auto place = stream_.tellg();
    if (isOpen() && std::getline(stream_, text) && !stream_.eof()) return text;
    stream_.clear();
    if (isOpen()) stream_.seekg(place);
    return std::nullopt;
  }
  // Once there is no line left.
  void openNextIfFull() {
    const bool isFormer = path_.ends_with(".1");  // never grows; its lines have been read
    if (!isFormer && (!isOpen() || inodeAt(path_) != inode_)) open();
  }

 private:
  void open() {
    stream_ = std::ifstream(path_);
    inode_ = inodeAt(path_);
  }

  const std::string path_;
  std::ifstream stream_;
  ino_t inode_ = 0;
};

// The files side by side. Lines begin with their time, and come oldest first.
class Logs {
 public:
  explicit Logs(const std::string& directory) {
    for (const char* name : {"/accounts.log", "/accounts-refused.log", "/accounts-writes.log"}) {
      for (const char* end : {"", ".1"}) readings_.push_back({LogFile(directory + name + end), {}});
    }
  }

  bool isAnyOpen() const {
    return std::ranges::any_of(readings_, [](const Reading& one) { return one.file.isOpen(); });
  }
  // The next whole line.
  std::optional<std::string> line() {
    Reading* oldest = nullptr;
    for (Reading& one : readings_) {
      if (!one.next) one.next = one.file.line();
      if (one.next && (!oldest || timeOf(*one.next) < timeOf(*oldest->next))) oldest = &one;
    }
    return oldest ? std::exchange(oldest->next, std::nullopt) : std::nullopt;
  }
  // Once there is no line left.
  void openNextIfFull() {
    for (Reading& one : readings_) one.file.openNextIfFull();
  }

 private:
  struct Reading {
    LogFile file;
    std::optional<std::string> next;
  };

  static std::string_view timeOf(const std::string& line) {
    return std::string_view(line).substr(0, line.find(' '));
  }

  std::vector<Reading> readings_;
};

void printLines(Logs& logs) {
  while (const auto line = logs.line()) fmt::print("{}\n", *line);
}

void follow(Logs& logs) {
  while (true) {
    printLines(logs);
    std::fflush(stdout);
    usleep(pauseUs);
    printLines(logs);
    logs.openNextIfFull();
  }
}

void run(const Options& options) {
  Logs logs(options.stateDirectory);
  if (!logs.isAnyOpen() && !options.follow) {
    throw std::runtime_error("there is no log in " + options.stateDirectory +
                             "; name another --state-dir");
  }
  std::deque<std::string> lines;
  const auto take = [&](std::string line) {
    lines.push_back(std::move(line));
    if (options.last && lines.size() > *options.last) lines.pop_front();
  };
  while (auto line = logs.line()) take(std::move(*line));
  for (const std::string& line : lines) fmt::print("{}\n", line);
  if (options.follow) follow(logs);
}

}  // namespace

void addLogCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("log", "Show who wrote, pushed, became primary or was refused, and when");
  const auto options = std::make_shared<Options>();
  addStateDirectoryOption(*command, options->stateDirectory);
  command->add_option("-n,--last", options->last, "Only so many lines, the newest")->type_name("N");
  command->add_flag("-f,--follow", options->follow, "Go on with new lines as they come");
  command->callback([options] { run(*options); });
}
