#include "cli/switch/SwitchOptions.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string_view>

#include "P4Runtime/companion/DeviceName.h"

namespace {

using Words = std::vector<std::string>;

constexpr uint32_t mostPort = std::numeric_limits<int32_t>::max();
constexpr const char* general = "Options";
constexpr const char* server = "Server and packets";
constexpr const char* ours = "State";
constexpr const char* hidden = "";

[[noreturn]] void refuse(const std::string& option, const std::string& reason) {
  throw CLI::ValidationError(option, reason);
}

std::optional<uint64_t> numberOf(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

uint32_t numberWithin(const std::string& option, const std::string& text, uint64_t least,
                      uint64_t most) {
  const auto number = numberOf(text);
  if (number && *number >= least && *number <= most) return static_cast<uint32_t>(*number);
  refuse(option, fmt::format("{} is no number from {} to {}", text, least, most));
}

// "N@IF"
void addInterface(SwitchOptions& options, const std::string& text) {
  const size_t at = text.find('@');
  if (at == std::string::npos) {
    refuse("--interface", text + " is no PORT@INTERFACE, such as 1@eth1");
  }
  const std::string device = text.substr(at + 1);
  if (!P4Runtime::DeviceName::fromText(device)) {
    refuse("--interface",
           fmt::format("'{}' is no name of an interface; 'ip link' lists them", device));
  }
  options.interfaces[numberWithin("--interface", text.substr(0, at), 0, mostPort)] = device;
}

bool isIpAddress(const std::string& host) {
  unsigned char bytes[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), bytes) == 1 ||
         inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

// Of a host's name; IPv4 is preferred.
std::string addressOf(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return "";
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  const addrinfo* best = found;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    if (one->ai_family == AF_INET && best->ai_family != AF_INET) best = one;
  }
  char text[NI_MAXHOST];
  const bool isKnown = getnameinfo(best->ai_addr, best->ai_addrlen, text, sizeof text, nullptr, 0,
                                   NI_NUMERICHOST) == 0;
  return isKnown ? text : "";
}

// "127.0.0.1:9559", "[::1]:9559", "localhost:9559"
ServerAddress serverAddress(const std::string& text) {
  const char* option = "--grpc-server-addr";
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    refuse(option, text + " is no ADDRESS:PORT, such as 127.0.0.1:9559");
  }
  ServerAddress address{.text = text, .host = text.substr(0, colon)};
  address.port = static_cast<uint16_t>(numberWithin(option, text.substr(colon + 1), 1, UINT16_MAX));
  if (address.host.front() == '[' && address.host.back() == ']') {
    address.host = address.host.substr(1, address.host.size() - 2);
  } else if (address.host.find(':') != std::string::npos) {
    refuse(option, text + " is not clear; write an IPv6 address in brackets, as in [::1]:9559");
  }
  if (!isIpAddress(address.host)) {
    const std::string name = address.host;
    address.host = addressOf(name);
    if (address.host.empty()) refuse(option, name + " is no address of this machine");
  }
  return address;
}

std::string pcapDirectory(const std::string& text) {
  struct stat status {};
  if (stat(text.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return text;
  refuse("--pcap", text + " is no directory; make it first");
}

using Taker = std::function<void(const std::string&)>;

// An option with one value; the last one counts.
CLI::Option* addValue(CLI::App& command, const std::string& names, const char* value,
                      const Taker& take, const std::string& help) {
  return command.add_option_function<std::string>(names, take, help)->type_name(value)->take_last();
}

void addGeneral(CLI::App& command, SwitchOptions& options) {
  command
      .add_option_function<Words>(
          "-i,--interface",
          [&options](const Words& words) {
            for (const std::string& word : words) addInterface(options, word);
          },
          "Make interface IF port N of the switch; once for each port")
      ->type_name("N@IF")
      ->allow_extra_args(false)
      ->take_all()
      ->group(general);
  addValue(
      command, "--device-id", "N",
      [&options](const std::string& text) {
        options.deviceId = numberWithin("--device-id", text, 0, UINT32_MAX);
      },
      "The device id that controllers give (0)")
      ->group(general);
  command
      .add_option_function<Words>(
          "--pcap",
          [&options](const Words& words) {
            const bool isNamed = !words.empty() && !words.back().empty();
            options.pcapDirectory = pcapDirectory(isNamed ? words.back() : ".");
          },
          "Record packets: IF_in.pcap and IF_out.pcap of each interface in DIR (.)")
      ->type_name("[DIR]")
      ->allow_extra_args(false)
      ->take_all()
      ->expected(0, 1)
      ->group(general);
  command
      .add_flag("--log-console", options.logsToConsole,
                "Log to standard output; else the log goes to standard error")
      ->group(general);
  command.add_option("--log-file", options.logFile, "Log into this file, at its end")
      ->type_name("FILE")
      ->group(general);
}

void addFile(CLI::App& command, const char* name, std::string& file, const char* help) {
  addValue(
      command, name, "FILE",
      [&file](const std::string& text) { file = std::filesystem::absolute(text).string(); }, help)
      ->group(server);
}

void addSecurity(CLI::App& command, SwitchOptions& options) {
  command.add_flag("--insecure", options.insecure, "Let everybody who reaches the address write")
      ->envname("KORVEL_INSECURE")
      ->group(server);
  command
      .add_flag("--grpc-server-ssl", options.wantsTls,
                "TLS, which the three files bring by themselves")
      ->group(server);
  addFile(command, "--grpc-server-cert", options.files.certificate,
          "The server's certificate, for TLS (PEM)");
  addFile(command, "--grpc-server-key", options.files.key, "Its private key");
  addFile(command, "--grpc-server-cacert", options.files.clientCa,
          "Who signs the certificates that controllers must have");
  addFile(command, "--grpc-server-crl", options.files.crl, "Those of them that count no more");
  command
      .add_flag_function(
          "--grpc-server-with-client-auth", [](int64_t) {},
          "Always so: TLS wants clients' certificates")
      ->group(server);
}

void addServer(CLI::App& command, SwitchOptions& options) {
  addValue(
      command, "--grpc-server-addr", "A:PORT",
      [&options](const std::string& text) { options.server = serverAddress(text); },
      "Where controllers connect (127.0.0.1:9559); [A]:PORT for IPv6. An address that other "
      "machines reach wants TLS or --insecure")
      ->group(server);
  addSecurity(command, options);
  addValue(
      command, "--cpu-port", "N",
      [&options](const std::string& text) {
        options.cpuPort = numberWithin("--cpu-port", text, 1, mostPort);
      },
      "The port of packets from and to controllers; without it there are none")
      ->group(server);
  addValue(
      command, "--drop-port", "N",
      [&options](const std::string& text) {
        options.dropPort = numberWithin("--drop-port", text, 0, mostPort);
      },
      "The port that means drop (511)")
      ->group(server);
  addValue(
      command, "--priority-queues", "N",
      [&options](const std::string& text) {
        options.priorityQueues = numberWithin("--priority-queues", text, 1, 256);
      },
      "Queues of a port, by priority (1)")
      ->group(server);
}

void addState(CLI::App& command, SwitchOptions& options) {
  command
      .add_option("--state-dir", options.stateDirectory,
                  "Where tables, sockets and traces live; kept in the end. Without it the switch "
                  "makes one, says where, and removes it in the end, unless it is killed")
      ->type_name("DIR")
      ->group(ours);
  command
      .add_flag("--fresh", options.fresh,
                "Begin empty, also where the former switch was killed and its tables lie there")
      ->group(ours);
  command
      .add_option("--orrery", options.orrery,
                  "Take configuration from a Redis, and put status there, as `korvel agent` does")
      ->type_name("URL")
      ->group(ours);
  command
      .add_option("--forwarder", options.forwarder,
                  "A forwarding agent that takes the options of korvel-forwarder, in its place")
      ->type_name("FILE")
      ->group(ours);
}

struct Strange {
  const char* names;
  bool takesValue;
  const char* reason;
};

// They change nothing that a program or a controller could tell.
constexpr Strange ignored[] = {
    {"--thrift-port", true, "there is no Thrift server; use a P4Runtime client"},
    {"-L,--log-level", true, "the log has one level; 'korvel trace' shows more"},
    {"--log-flush", false, "each line of the log is written at once"},
    {"--log-file-max-size", true, "the log file is not rotated"},
    {"--log-file-max-files", true, "the log file is not rotated"},
    {"--dump-packet-data", true, "'korvel-forwarder ctl trace' shows packets"},
    {"--nanolog", true, "there are no event messages; 'korvel-forwarder ctl trace' shows packets"},
    {"--notifications-addr", true, "there are no event messages"},
    {"--debugger", false, "there is no debugger; 'korvel-forwarder ctl trace' shows packets"},
    {"--debugger-addr", true, "there is no debugger; 'korvel-forwarder ctl trace' shows packets"},
    {"--restore-state", true, "a switch that was killed goes on with its tables by itself"},
    {"--max-port-count", true, "there is no such bound"},
    {"--max-mc-groups", true, "there is no such bound"},
    {"--max-l1-entries", true, "there is no such bound"},
    {"--max-l2-entries", true, "there is no such bound"},
    {"--enable-swap", false, "controllers may always push programs"},
    {"--disable-swap", false, "controllers may always push programs"},
    {"--load-modules", true, "programs that need other externs are refused"},
};

// A switch without them would not do what is asked for.
constexpr Strange refused[] = {
    {"--use-files", true, "packets come from interfaces alone; replay files into a veth device"},
    {"--packet-in", true, "packets come from interfaces alone"},
    {"--dp-grpc-server-addr", true, "packets come from interfaces alone"},
};

std::string longName(const Strange& option) {
  const std::string names = option.names;
  return names.substr(names.find("--"));
}

void addStrange(CLI::App& command, const Strange& option, const std::function<void()>& given) {
  CLI::Option* added =
      option.takesValue
          ? addValue(
                command, option.names, "VALUE", [given](const std::string&) { given(); }, "")
          : command.add_flag_function(option.names, [given](int64_t) { given(); });
  added->group(hidden);
}

std::string ignoredText() {
  std::string text = "Taken with a line of warning, for scripts:";
  size_t column = text.size();
  for (const Strange& option : ignored) {
    const std::string name = longName(option);
    const bool breaks = column + name.size() > 78;
    text += (breaks ? "\n  " : " ") + name;
    column = (breaks ? 1 : column) + 1 + name.size();
  }
  return text;
}

void addStrangers(CLI::App& command, SwitchOptions& options) {
  for (const Strange& option : ignored) {
    const std::string warning = fmt::format("{} is ignored: {}", longName(option), option.reason);
    addStrange(command, option, [&options, warning] { options.warnings.push_back(warning); });
  }
  for (const Strange& option : refused) {
    addStrange(command, option,
               [name = longName(option), reason = option.reason] { refuse(name, reason); });
  }
}

std::string firstWord(const std::string& word) { return word.substr(0, word.find('=')); }

// All names of the command's options that begin so; the name alone when it is one.
Words namesFrom(const CLI::App& command, const std::string& beginning) {
  Words names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      if (name == beginning) return {name};
      if (name.starts_with(beginning)) names.push_back(name);
    }
  }
  return names;
}

std::string plainWord(const CLI::App& command, const std::string& word) {
  const std::string beginning = firstWord(word).substr(2);
  const Words names = namesFrom(command, beginning);
  if (names.empty()) return word;  // refused by the parse, in its words
  if (names.size() > 1) {
    refuse("--" + beginning,
           fmt::format("it may mean --{}; write more of it", fmt::join(names, " or --")));
  }
  return "--" + names[0] + word.substr(firstWord(word).size());
}

bool isLoopback(const std::string& host) {
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  return host == "::1";
}

void checkSecurity(const SwitchOptions& options) {
  const ServerFiles& files = options.files;
  const bool hasAll = !files.certificate.empty() && !files.key.empty() && !files.clientCa.empty();
  const bool wantsTls = options.wantsTls || !files.certificate.empty() || !files.key.empty() ||
                        !files.clientCa.empty() || !files.crl.empty();
  if (wantsTls && !hasAll) {
    refuse("--grpc-server-ssl",
           "TLS wants --grpc-server-cert, --grpc-server-key and --grpc-server-cacert");
  }
  if (wantsTls && options.insecure) refuse("--insecure", "it contradicts TLS; leave one out");
  if (!wantsTls && !options.insecure && !isLoopback(options.server.host)) {
    refuse("--grpc-server-addr",
           options.server.text +
               " is open to other machines, and anybody who reaches it could write; give "
               "--grpc-server-cert, --grpc-server-key and --grpc-server-cacert for TLS, or "
               "--insecure to let everybody in");
  }
}

}  // namespace

void addSwitchOptions(CLI::App& command, SwitchOptions& options) {
  command
      .add_option("program", options.program,
                  "The JSON of a compiled v1model program to begin with; a controller has to push "
                  "in any case, since only that brings the P4Info")
      ->type_name("FILE");
  command.add_flag("--no-p4", options.noProgram, "Begin without a program: a controller pushes it")
      ->group(general);
  addGeneral(command, options);
  addServer(command, options);
  addState(command, options);
  addStrangers(command, options);
  command.footer(ignoredText());
}

void checkSwitchOptions(const SwitchOptions& options) {
  checkSecurity(options);
  if (options.program.empty() && !options.noProgram) {
    refuse("FILE", "give the JSON of a compiled program, or --no-p4 to begin without one");
  }
  if (!options.program.empty() && options.noProgram) {
    refuse("--no-p4", options.program + " is a program; leave one of them out");
  }
  if (options.logsToConsole && !options.logFile.empty()) {
    refuse("--log-file", "the log goes to one place; leave out --log-console");
  }
  if (options.cpuPort && options.interfaces.contains(*options.cpuPort)) {
    refuse("--cpu-port", fmt::format("port {} is interface {} already", *options.cpuPort,
                                     options.interfaces.at(*options.cpuPort)));
  }
  std::map<std::string, uint32_t> ports;
  for (const auto& [port, device] : options.interfaces) {
    const auto [other, isNew] = ports.try_emplace(device, port);
    if (isNew) continue;
    refuse("--interface", fmt::format("{} is given to ports {} and {}; an interface is one port",
                                      device, other->second, port));
  }
}

std::vector<std::string> plainSwitchWords(const CLI::App& command, std::vector<std::string> words) {
  std::erase(words, "--");
  for (std::string& word : words) {
    if (word.starts_with("--")) word = plainWord(command, word);
  }
  return words;
}
