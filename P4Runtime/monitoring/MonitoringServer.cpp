#include "P4Runtime/monitoring/MonitoringServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "P4Runtime/monitoring/Exposition.h"
#include "P4Runtime/monitoring/HttpServer.h"
#include "P4Runtime/monitoring/HttpWorkers.h"
#include "P4Runtime/monitoring/Page.h"
#include "P4Runtime/monitoring/TimedStream.h"
#include "PI/proto/pi_server_shared.h"

namespace P4Runtime {
namespace {

constexpr size_t mostRequestBytes = 4096;
constexpr std::ptrdiff_t mostMadeAtATime = 4;  // responses: each takes a processor for a moment

// The policy is asked about these as they stand here: the server's routes are regular expressions,
// and must not take a path that looks like one of them.
constexpr std::array<std::string_view, 4> servedPaths{"/", "/metrics", "/status.json",
                                                      "/rows.json"};

struct Place {
  std::string host;  // without brackets
  int port = 0;
};

std::optional<Place> placeOf(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  Place place{address.substr(0, colon), 0};
  if (place.host.front() == '[' && place.host.back() == ']') {
    place.host = place.host.substr(1, place.host.size() - 2);
  } else if (place.host.find(':') != std::string::npos) {
    return std::nullopt;  // "::1" has a port of 1, or none
  }
  const char* const end = address.data() + address.size();
  const auto [stopped, error] = std::from_chars(address.data() + colon + 1, end, place.port);
  const bool isPort =
      error == std::errc() && stopped == end && place.port >= 0 && place.port < 65536;
  return isPort ? std::optional(place) : std::nullopt;
}

bool isLoopback(const std::string& host) {
  in_addr four{};
  in6_addr six{};
  if (inet_pton(AF_INET, host.c_str(), &four) == 1) return ntohl(four.s_addr) >> 24 == 127;
  if (inet_pton(AF_INET6, host.c_str(), &six) == 1) return IN6_IS_ADDR_LOOPBACK(&six);
  return host == "localhost";
}

bool wantsOpenMetrics(const httplib::Request& request) {
  return request.get_header_value("Accept").find("application/openmetrics-text") !=
         std::string::npos;
}

// A page of another site that has this address under a name of its own must not read the answers.
bool isForThisMachine(const httplib::Request& request) {
  std::string host = request.get_header_value("Host");
  if (host.empty()) return true;
  if (const auto place = placeOf(host)) host = place->host;
  return isLoopback(host);
}

// Codes are of gRPC. Without a reason the request is served.
struct Objection {
  std::string reason;
  std::string identity;
  int code = 7;  // PERMISSION_DENIED
};

// Without TLS nothing is known of the client.
Objection objectionTo(const httplib::Request& request, const pi::ServerTls* tls) {
  std::string identity;
  if (tls) {
    const pi::ServerTls::Client client = tls->client(*request.ssl);
    if (!client.objection.empty()) {
      return {.reason = client.objection, .identity = client.identity, .code = 16};
    }
    identity = client.identity;
  } else if (!isForThisMachine(request)) {
    return {.reason = "ask for this by the name localhost, or by its address"};
  }
  if (pi::policyAllowsCall(identity, request.path)) return {};
  const std::string who = tls ? '"' + identity + '"' : "an unknown client";
  return {.reason = fmt::format("the policy does not let {} see {}", who, request.path),
          .identity = identity};
}

// True: it is refused, and accounted for.
bool refuse(const httplib::Request& request, httplib::Response& response,
            const pi::ServerTls* tls) {
  const Objection objection = objectionTo(request, tls);
  if (objection.reason.empty()) return false;
  pi::accountRefusal({"monitoring", objection.identity,
                      peerText(request.remote_addr, request.remote_port), request.path,
                      objection.code, objection.reason});
  response.status = 403;
  response.set_content(objection.reason + "\n", "text/plain");
  return true;
}

// Responses are made by a few threads at a time, while others wait for slow clients.
class Turns {
 public:
  template <typename Make>
  std::string take(Make make) {
    free_.acquire();
    const std::unique_ptr<std::counting_semaphore<>, Release> taken(&free_);
    return make();
  }

 private:
  struct Release {
    void operator()(std::counting_semaphore<>* free) const { free->release(); }
  };

  std::counting_semaphore<> free_{mostMadeAtATime};
};

MonitoringContents inTurns(MonitoringContents contents) {
  const auto turns = std::make_shared<Turns>();
  return {
      .metrics = [=](bool isOpen) { return turns->take([&] { return contents.metrics(isOpen); }); },
      .status = [=] { return turns->take([&] { return contents.status(); }); },
      .rows =
          [=](const std::string& table, const std::string& wanted) {
            return turns->take([&] { return contents.rows(table, wanted); });
          }};
}

void setUp(httplib::Server& server, const MonitoringContents& contents, const pi::ServerTls* tls) {
  server.new_task_queue = [] { return new HttpWorkers; };
  server.set_payload_max_length(mostRequestBytes);
  server.set_pre_routing_handler(
      [tls](const httplib::Request& request, httplib::Response& response) {
        if (std::ranges::find(servedPaths, request.path) == servedPaths.end()) {
          response.status = 404;
          return httplib::Server::HandlerResponse::Handled;
        }
        if (!refuse(request, response, tls)) return httplib::Server::HandlerResponse::Unhandled;
        return httplib::Server::HandlerResponse::Handled;
      });
  server.set_default_headers(
      {{"X-Content-Type-Options", "nosniff"},
       {"Cache-Control", "no-store"},
       {"Content-Security-Policy", "default-src 'self' 'unsafe-inline'; frame-ancestors 'none'"}});
  server.Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(pageText(), "text/html; charset=utf-8");
  });
  server.Get("/metrics", [contents](const httplib::Request& request, httplib::Response& response) {
    const bool isOpen = wantsOpenMetrics(request);
    using Form = Exposition::Form;
    response.set_content(contents.metrics(isOpen),
                         Exposition::contentType(isOpen ? Form::openMetrics : Form::prometheus));
  });
  server.Get("/status.json", [contents](const httplib::Request&, httplib::Response& response) {
    response.set_content(contents.status(), "application/json");
  });
  server.Get("/rows.json",
             [contents](const httplib::Request& request, httplib::Response& response) {
               response.set_content(
                   contents.rows(request.get_param_value("table"), request.get_param_value("find")),
                   "application/json");
             });
}

}  // namespace

struct MonitoringServer::Listening {
  Listening(std::unique_ptr<pi::ServerTls> given, std::chrono::milliseconds patience)
      : tls(std::move(given)), server(tls.get(), patience) {}

  const std::unique_ptr<pi::ServerTls> tls;  // outlives the server
  HttpServer server;
  std::thread thread;
};

std::string monitoringAddressFault(const std::string& address, bool hasCertificates) {
  const auto place = placeOf(address);
  if (!place) {
    return fmt::format("'{}' is no HOST:PORT; use an address such as 127.0.0.1:9464", address);
  }
  if (isLoopback(place->host) || hasCertificates) return "";
  return fmt::format(
      "{} is open to other machines, which need TLS: set certificate, key and clientCa of "
      "p4runtime/config/security, or use an address such as 127.0.0.1:9464",
      place->host);
}

MonitoringServer::MonitoringServer(const std::string& address, MonitoringContents contents,
                                   const MakeTls& makeTls, std::chrono::milliseconds patience) {
  const auto place = placeOf(address);
  auto tls = place && !isLoopback(place->host) ? makeTls() : nullptr;
  const std::string fault = monitoringAddressFault(address, tls != nullptr);
  if (!fault.empty()) throw std::runtime_error(fault);
  listening_ = std::make_unique<Listening>(std::move(tls), patience);
  httplib::Server& server = listening_->server;
  setUp(server, inTurns(std::move(contents)), listening_->tls.get());
  int port = place->port;
  if (port == 0) {
    port = server.bind_to_any_port(place->host);
  } else if (!server.bind_to_port(place->host, port)) {
    port = -1;
  }
  if (port < 0) {
    throw std::runtime_error(fmt::format(
        "cannot listen on {}: it is no address of this machine, or another process has that port; "
        "choose another one",
        address));
  }
  const bool isSix = place->host.find(':') != std::string::npos;
  address_ = fmt::format(fmt::runtime(isSix ? "[{}]:{}" : "{}:{}"), place->host, port);
  listening_->thread = std::thread([&server] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::yield();  // stop() would go unheard
}

MonitoringServer::~MonitoringServer() {
  listening_->server.stop();
  listening_->thread.join();
}

bool MonitoringServer::isSecured() const { return listening_->tls != nullptr; }

}  // namespace P4Runtime
