#include "cli/LogCommand.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

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
    if (!isOpen() || inodeAt(path_) != inode_) open();
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

void follow(LogFile& file) {
  while (true) {
    while (const auto line = file.line()) fmt::print("{}\n", *line);
    std::fflush(stdout);
    usleep(pauseUs);
    while (const auto line = file.line()) fmt::print("{}\n", *line);
    file.openNextIfFull();
  }
}

void run(const Options& options) {
  const std::string path = options.stateDirectory + "/accounts.log";
  LogFile former(path + ".1");
  LogFile file(path);
  if (!file.isOpen() && !former.isOpen() && !options.follow) {
    throw std::runtime_error("there is no log in " + options.stateDirectory +
                             "; name another --state-dir");
  }
  std::deque<std::string> lines;
  for (LogFile* const one : {&former, &file}) {
    while (auto line = one->line()) {
      lines.push_back(std::move(*line));
      if (options.last && lines.size() > *options.last) lines.pop_front();
    }
  }
  for (const std::string& line : lines) fmt::print("{}\n", line);
  if (options.follow) follow(file);
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
