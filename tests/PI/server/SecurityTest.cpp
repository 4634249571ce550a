// Who gets in: TLS with client certificates that come, go and break, and Unix sockets.
#include <gmock/gmock.h>
#include <grpcpp/create_channel_posix.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_security.h"
#include "PI/server/Listener.h"
#include "PI/server/Peer.h"
#include "PI/server/UnixSocket.h"
#include "PI/server/UnixUsers.h"
#include "PI/server/tls/LiveCertificates.h"
#include "PI/server/tls/TlsCredentials.h"
#include "tests/PI/server/ServerFixture.h"
#include "tests/support/Certificates.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using TestSupport::Certificates;
using TestSupport::TempDir;

Certificates& TheCertificates() {
  static Certificates* const all = [] {
    auto* made = new Certificates;
    made->authorityIs("other");
    made->certificateIs(
        {.name = "switch", .subject = "/CN=switch", .alternatives = "IP:127.0.0.1"});
    made->certificateIs({.name = "elsewhere", .subject = "/CN=s", .alternatives = "IP:192.0.2.1"});
    made->certificateIs({.name = "uri", .alternatives = "URI:spiffe://lab/a,DNS:a.lab"});
    made->certificateIs({.name = "dns", .subject = "/CN=c", .alternatives = "DNS:a.lab,DNS:b.lab"});
    made->certificateIs({.name = "common", .subject = "/CN=controller-1"});
    made->certificateIs({.name = "two", .alternatives = "URI:spiffe://lab/a,URI:spiffe://lab/b"});
    made->certificateIs({.name = "nobody"});
    made->certificateIs({.name = "blank", .subject = "/CN=root admin"});
    made->certificateIs({.name = "expired", .subject = "/CN=c", .isExpired = true});
    made->certificateIs({.name = "stranger", .subject = "/CN=c", .authority = "other"});
    made->certificateIs({.name = "revoked", .subject = "/CN=leaver"});
    made->certificateIs({.name = "middle", .subject = "/CN=middle", .isAuthority = true});
    made->certificateIs({.name = "below", .subject = "/CN=below", .authority = "middle"});
    made->certificateIs({.name = "weak", .subject = "/CN=weak", .isWeak = true});
    made->crlIs();
    return made;
  }();
  return *all;
}

struct Client {
  std::string certificate;  // its name; "": none
  std::string trusts = "ca";
};

std::shared_ptr<grpc::ChannelCredentials> credentialsOf(const Client& client) {
  grpc::SslCredentialsOptions options;
  options.pem_root_certs = TheCertificates().bytes(client.trusts + ".pem");
  if (!client.certificate.empty()) {
    options.pem_cert_chain = TheCertificates().bytes(client.certificate + ".pem");
    options.pem_private_key = TheCertificates().bytes(client.certificate + ".key");
  }
  return grpc::SslCredentials(options);
}

std::shared_ptr<grpc::Channel> channelTo(
    const std::string& target, const std::shared_ptr<grpc::ChannelCredentials>& credentials) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel(target, credentials, arguments);
}

grpc::Status callOn(const std::shared_ptr<grpc::Channel>& channel) {
  const auto stub = p4::v1::P4Runtime::NewStub(channel);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  p4::v1::CapabilitiesResponse response;
  return stub->Capabilities(&context, {}, &response);
}

class SecurityTest : public ServerTest {
 protected:
  SecurityTest() { stop(); }

  // What the server reads; a test may change the files.
  void filesAre(const std::string& server, const std::string& crl = "") {
    auto& all = TheCertificates();
    fileIs("server.pem", all.bytes(server + ".pem"));
    fileIs("server.key", all.bytes(server + ".key"));
    fileIs("clients.pem", all.bytes("ca.pem"));
    if (!crl.empty()) fileIs("crl.pem", all.bytes(crl));
  }
  int startTls(bool withCrl = false) {
    const std::string certificate = folder_.file("server.pem"), key = folder_.file("server.key"),
                      ca = folder_.file("clients.pem"), crl = folder_.file("crl.pem");
    const PIGrpcServerCertificates_t files{.certificate = certificate.c_str(),
                                           .key = key.c_str(),
                                           .client_ca = ca.c_str(),
                                           .crl = withCrl ? crl.c_str() : nullptr};
    return PIGrpcServerRunWith("127.0.0.1:0", &files, nullptr);
  }
  static std::string target() { return "127.0.0.1:" + std::to_string(PIGrpcServerGetPort()); }
  static std::shared_ptr<grpc::Channel> connectedAs(const Client& client) {
    return channelTo(target(), credentialsOf(client));
  }
  static int connectedSocket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(PIGrpcServerGetPort()));
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  static grpc::Status call(const Client& client) { return callOn(connectedAs(client)); }

  // As an operator's tool does it: written aside and renamed.
  void fileIs(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder_.file("next"), std::ios::binary) << bytes;
    ASSERT_EQ(chmod(folder_.file("next").c_str(), 0600), 0);
    ASSERT_EQ(rename(folder_.file("next").c_str(), folder_.file(name).c_str()), 0);
  }

  TempDir folder_;
};

TEST_F(SecurityTest, OnlyCertificatesOfTheAuthorityThatNameOneClientGetIn) {
  filesAre("switch", "ca.crl");
  ASSERT_EQ(startTls(true), 0) << PIGrpcServerLastError();
  EXPECT_THAT(PIGrpcServerCertificate(), HasSubstr("switch, until 20"));
  EXPECT_STREQ(PIGrpcServerCertificateTrouble(), "");
  const struct {
    const char* what;
    Client client;
    StatusCode code;
    const char* message = "";
  } cases[] = {
      {"URI", {"uri"}, StatusCode::OK},
      {"DNS names", {"dns"}, StatusCode::OK},
      {"common name", {"common"}, StatusCode::OK},
      {"no certificate", {""}, StatusCode::UNAVAILABLE},
      {"another authority's", {"stranger"}, StatusCode::UNAVAILABLE},
      {"expired", {"expired"}, StatusCode::UNAVAILABLE},
      {"the server is not trusted", {"uri", "other"}, StatusCode::UNAVAILABLE},
      {"two URIs", {"two"}, StatusCode::UNAUTHENTICATED, "2 URI names"},
      {"no name", {"nobody"}, StatusCode::UNAUTHENTICATED, "names nobody"},
      {"a blank in the name", {"blank"}, StatusCode::UNAUTHENTICATED, "blanks"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const grpc::Status status = call(c.client);
    EXPECT_EQ(status.error_code(), c.code) << status.error_message();
    EXPECT_THAT(status.error_message(), HasSubstr(c.message));
  }
  EXPECT_EQ(callOn(channelTo(target(), grpc::InsecureChannelCredentials())).error_code(),
            StatusCode::UNAVAILABLE);
}

TEST_F(SecurityTest, ClientsRefuseAServerOfAnotherNameOrWithoutTls) {
  filesAre("elsewhere");
  ASSERT_EQ(startTls(), 0) << PIGrpcServerLastError();
  EXPECT_EQ(call({"uri"}).error_code(), StatusCode::UNAVAILABLE);
  stop();
  start();
  EXPECT_EQ(call({"uri"}).error_code(), StatusCode::UNAVAILABLE);
  EXPECT_EQ(callOn(channelTo(target(), grpc::InsecureChannelCredentials())).error_code(),
            StatusCode::OK);
}

// A connection that is open does not save a client whose certificate is revoked.
TEST_F(SecurityTest, RevokedCertificatesGetNothingAnyMore) {
  filesAre("switch", "ca.crl");
  ASSERT_EQ(startTls(true), 0) << PIGrpcServerLastError();
  const auto open = connectedAs({"revoked"});
  ASSERT_TRUE(callOn(open).ok());
  const auto stub = p4::v1::P4Runtime::NewStub(open);
  Controller controller(*stub, deviceId_);
  ASSERT_EQ(controller.arbitrate(1), StatusCode::OK);
  TheCertificates().revoke("revoked");
  fileIs("crl.pem", TheCertificates().bytes("ca.crl"));
  const grpc::Status fresh = call({"revoked"});
  EXPECT_EQ(fresh.error_code(), StatusCode::UNAUTHENTICATED);
  EXPECT_THAT(fresh.error_message(), HasSubstr("leaver has been revoked"));
  EXPECT_EQ(callOn(open).error_code(), StatusCode::UNAUTHENTICATED);
  const auto last = controller.next();
  EXPECT_EQ(last.error().canonical_code(), StatusCode::UNAUTHENTICATED);
  EXPECT_THAT(last.error().message(), HasSubstr("leaver has been revoked"));
  EXPECT_FALSE(controller.ended().ok());
  EXPECT_TRUE(call({"uri"}).ok());
}

TEST_F(SecurityTest, RevokedIntermediatesTakeTheirClientsAlong) {
  filesAre("switch", "ca.crl");
  TheCertificates().fileIs(
      "chain.pem", TheCertificates().bytes("below.pem") + TheCertificates().bytes("middle.pem"));
  TheCertificates().fileIs("chain.key", TheCertificates().bytes("below.key"));
  ASSERT_EQ(startTls(true), 0) << PIGrpcServerLastError();
  EXPECT_TRUE(call({"chain"}).ok());
  EXPECT_EQ(call({"below"}).error_code(), StatusCode::UNAVAILABLE);
  TheCertificates().revoke("middle");
  fileIs("crl.pem", TheCertificates().bytes("ca.crl"));
  EXPECT_EQ(call({"chain"}).error_code(), StatusCode::UNAUTHENTICATED);
}

TEST_F(SecurityTest, FilesThatAreNotGoodKeepTheServerFromStarting) {
  auto& all = TheCertificates();
  const struct {
    const char* what;
    const char* file;
    std::string bytes;
    const char* message;
  } cases[] = {
      {"no key", "server.key", "", "server.key: no private key in PEM"},
      {"another key", "server.key", all.bytes("uri.key"), "server.key: does not belong to"},
      {"a key in place of the certificate", "server.pem", all.bytes("switch.key"),
       "server.pem: no certificate"},
      {"half a certificate", "server.pem", all.bytes("switch.pem").substr(0, 300),
       "server.pem: no certificate"},
      {"no authority", "clients.pem", "-", "clients.pem: no certificate"},
      {"another authority's list", "clients.pem", all.bytes("other.pem"), "nobody in clientCa"},
      {"no list", "crl.pem", "", "crl.pem: no revocation list"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    filesAre("switch", "ca.crl");
    fileIs(c.file, c.bytes);
    EXPECT_EQ(startTls(true), -1);
    EXPECT_THAT(PIGrpcServerLastError(), HasSubstr(c.message));
    EXPECT_THAT(PIGrpcServerLastError(), Not(HasSubstr("-----")));
  }
  filesAre("weak");
  EXPECT_EQ(startTls(), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("TLS cannot use it (ee key too small)"));
  filesAre("switch", "ca.crl");
  unlink(folder_.file("server.key").c_str());
  EXPECT_EQ(startTls(true), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("server.key: No such file"));
}

// Every rotation serves the next handshake; files that are bad in between change nothing, and no
// call notices any of it.
TEST_F(SecurityTest, RotationsUnderLoadFailNoCall) {
  const char* const wanted = std::getenv("KORVEL_TEST_ROTATIONS");
  const int rotations = wanted ? std::atoi(wanted) : 100;
  auto& all = TheCertificates();
  all.certificateIs({.name = "next", .subject = "/CN=next", .alternatives = "IP:127.0.0.1"});
  filesAre("switch");
  ASSERT_EQ(startTls(), 0) << PIGrpcServerLastError();
  std::atomic<bool> ended = false;
  std::atomic<int> calls = 0;
  std::atomic<int> failed = 0;
  std::thread load([&] {
    const auto open = connectedAs({"dns"});
    while (!ended) {
      failed += !callOn(open).ok();
      ++calls;
    }
  });
  for (int i = 0; i < rotations; ++i) {
    const std::string name = i % 2 == 0 ? "next" : "switch";
    fileIs("server.pem", all.bytes(name + ".pem"));  // does not fit the key yet
    if (i % 10 == 0) {
      fileIs("clients.pem", "broken");
      EXPECT_TRUE(call({"uri"}).ok());
      EXPECT_THAT(PIGrpcServerCertificateTrouble(), HasSubstr("former certificates stay"));
      fileIs("clients.pem", all.bytes("ca.pem"));
    }
    fileIs("server.key", all.bytes(name + ".key"));
    ASSERT_TRUE(call({"uri"}).ok());
    EXPECT_THAT(PIGrpcServerCertificate(), HasSubstr(name));
    EXPECT_STREQ(PIGrpcServerCertificateTrouble(), "");
  }
  ended = true;
  load.join();
  EXPECT_EQ(failed, 0) << "of " << calls;
  EXPECT_GT(calls, 0);
}

// An authority that goes takes its clients along, from the next handshake on; calls go on.
TEST_F(SecurityTest, OtherAuthoritiesCountFromTheNextHandshake) {
  filesAre("switch");
  ASSERT_EQ(startTls(), 0) << PIGrpcServerLastError();
  const auto open = connectedAs({"uri"});
  ASSERT_TRUE(callOn(open).ok());
  fileIs("clients.pem", TheCertificates().bytes("other.pem"));
  EXPECT_TRUE(call({"stranger"}).ok());
  EXPECT_FALSE(call({"uri"}).ok());
  EXPECT_TRUE(callOn(open).ok());
}

TEST_F(SecurityTest, TheOwnProcessNeedsNeitherCertificateNorConnection) {
  filesAre("switch");
  ASSERT_EQ(startTls(), 0) << PIGrpcServerLastError();
  stub_ = p4::v1::P4Runtime::NewStub(PIGrpcServerOwnChannel());
  EXPECT_TRUE(push().ok());
  EXPECT_EQ(push("guessed").error_code(), StatusCode::PERMISSION_DENIED);
}

// Handshakes that stop half-way, with bytes of one or without: they end, and cost others nothing.
TEST_F(SecurityTest, HalfHandshakesEndAndLeaveOthersAlone) {
  filesAre("switch");
  ASSERT_EQ(startTls(), 0) << PIGrpcServerLastError();
  const auto open = connectedAs({"uri"});
  ASSERT_TRUE(callOn(open).ok());
  const std::string hello = "\x16\x03\x01\x02";  // the first bytes of a record that never ends
  std::vector<int> halves;
  for (int i = 0; i < 200; ++i) {
    halves.push_back(connectedSocket());
    if (i % 2 == 0) {
      ASSERT_EQ(send(halves.back(), hello.data(), hello.size(), 0), ssize_t(hello.size()));
    }
  }
  EXPECT_TRUE(callOn(open).ok());
  EXPECT_TRUE(call({"dns"}).ok());
  for (const int half : halves) {
    pollfd polled{half, POLLIN, 0};
    EXPECT_EQ(poll(&polled, 1, kPatience.count() * 1000), 1) << "the server does not give it up";
    close(half);
  }
}

// Says who called, as the server sees it.
class PeerService final : public p4::v1::P4Runtime::Service {
 public:
  grpc::Status Capabilities(grpc::ServerContext* context, const p4::v1::CapabilitiesRequest*,
                            p4::v1::CapabilitiesResponse*) override {
    last = pi::server::peerOf(*context);
    return grpc::Status::OK;
  }
  pi::server::Peer last;
};

TEST_F(SecurityTest, PeersAreWhomTheirCertificatesAndUsersName) {
  using namespace pi::server;
  filesAre("switch");
  const auto live =
      std::make_shared<LiveCertificates>(CertificatePaths{.certificate = folder_.file("server.pem"),
                                                          .key = folder_.file("server.key"),
                                                          .clientCa = folder_.file("clients.pem")});
  const std::string path = folder_.file("p4.sock");
  UnixSocket unixSocket({.path = path}, 8);
  PeerService service;
  grpc::ServerBuilder builder;
  int port = 0;
  int plainPort = 0;
  builder.AddListeningPort("127.0.0.1:0", tlsCredentials(live), &port);
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &plainPort);
  UnixUsers users(builder);
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  Listener listener("", unixSocket.fd());
  listener.start([&](int listenerFd, int fd) { users.take(listenerFd, fd); });
  const auto at = [](int number) { return "127.0.0.1:" + std::to_string(number); };
  const struct {
    const char* what;
    std::shared_ptr<grpc::Channel> channel;
    Peer::Way way;
    std::string identity;
  } cases[] = {
      {"URI", channelTo(at(port), credentialsOf({"uri"})), Peer::Way::tls, "spiffe://lab/a"},
      {"DNS", channelTo(at(port), credentialsOf({"dns"})), Peer::Way::tls, "a.lab"},
      {"CN", channelTo(at(port), credentialsOf({"common"})), Peer::Way::tls, "controller-1"},
      {"plain", channelTo(at(plainPort), grpc::InsecureChannelCredentials()), Peer::Way::plain, ""},
      {"Unix", channelTo("unix:" + path, grpc::InsecureChannelCredentials()), Peer::Way::unixSocket,
       "unix:" + std::to_string(getuid())},
      {"own", server->InProcessChannel({}), Peer::Way::plain, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(callOn(c.channel).ok());
    EXPECT_EQ(service.last.way, c.way);
    EXPECT_EQ(service.last.identity, c.identity);
  }
  listener.stop();
  server->Shutdown();
}

// Both ends of a connection, as if a process of the user had connected. Needs root.
std::pair<int, int> connectionOf(uid_t user) {
  int ends[2] = {-1, -1};
  // Of this thread alone, unlike the library's function.
  EXPECT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  EXPECT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
  return {ends[0], ends[1]};
}

TEST_F(SecurityTest, UnixUsersComeAndGoWithoutEndAndAreNeverTakenForEachOther) {
  using namespace pi::server;
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to connect as other users";
  PeerService service;
  grpc::ServerBuilder builder;
  auto now = std::chrono::steady_clock::now();
  UnixUsers users(builder, [&] { return now; });
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  struct Connected {
    std::shared_ptr<grpc::Channel> channel;  // null: the server does not serve the user
    int served = -1;
    ino_t inode = 0;
  };
  const auto inodeOf = [](int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
  };
  const auto connectedAs = [&](uid_t user) -> Connected {
    const auto [served, client] = connectionOf(user);
    const ino_t inode = inodeOf(served);
    if (users.take(-1, served)) {
      return {grpc::CreateInsecureChannelFromFd("switch", client), served, inode};
    }
    close(client);
    return {};
  };
  const auto expectServed = [&](const Connected& connected, uid_t user) {
    ASSERT_TRUE(connected.channel) << user;
    ASSERT_TRUE(callOn(connected.channel).ok()) << user;
    EXPECT_EQ(service.last.identity, "unix:" + std::to_string(user));
  };
  constexpr uid_t first = 1000;
  constexpr uid_t late = 2000;
  std::vector<Connected> open;
  for (uid_t user = first; user < first + UnixUsers::kMost; ++user) {
    now += std::chrono::seconds(1);
    open.push_back(connectedAs(user));
    expectServed(open.back(), user);
  }
  now += 2 * UnixUsers::kRest;
  EXPECT_FALSE(connectedAs(late).channel) << "all others have connections";
  expectServed(connectedAs(first), first);

  for (const size_t gone : {7, 5}) {
    open[gone].channel.reset();
    const auto last = std::chrono::steady_clock::now() + kPatience;
    while (inodeOf(open[gone].served) == open[gone].inode) {
      ASSERT_LT(std::chrono::steady_clock::now(), last) << "the server does not close it";
      std::this_thread::yield();
    }
  }
  EXPECT_FALSE(connectedAs(late).channel) << "the two rest for a while";
  now += UnixUsers::kRest;
  open[5] = connectedAs(late);
  expectServed(open[5], late);
  open[7] = connectedAs(first + 7);
  expectServed(open[7], first + 7);
  EXPECT_FALSE(connectedAs(first + 5).channel) << "it connected longest ago";
  for (size_t i = 0; i < open.size(); ++i) expectServed(open[i], i == 5 ? late : first + i);
  server->Shutdown();
}

class UnixSocketTest : public SecurityTest {
 protected:
  int startUnix(const std::string& path, const char* address = nullptr, uint32_t mode = 0600) {
    const PIGrpcServerUnixSocket_t where{
        .path = path.c_str(), .mode = mode, .user = uid_t(-1), .group = gid_t(-1)};
    return PIGrpcServerRunWith(address, nullptr, &where);
  }
  static grpc::Status callAt(const std::string& target) {
    return callOn(channelTo(target, grpc::InsecureChannelCredentials()));
  }
  TempDir home_;
  const std::string path_ = home_.file("p4.sock");
};

TEST_F(UnixSocketTest, ServesAloneOrBesideAnAddressAndLeavesNoFile) {
  ASSERT_EQ(startUnix(path_, nullptr, 0620), 0) << PIGrpcServerLastError();
  EXPECT_EQ(PIGrpcServerGetPort(), 0);
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0620u);
  EXPECT_TRUE(callAt("unix:" + path_).ok());
  stop();
  EXPECT_NE(stat(path_.c_str(), &status), 0);
  ASSERT_EQ(startUnix(path_, "127.0.0.1:0"), 0) << PIGrpcServerLastError();
  EXPECT_TRUE(callAt("unix:" + path_).ok());
  EXPECT_TRUE(callAt(target()).ok());
}

TEST_F(UnixSocketTest, ReplacesOnlyADeadSocket) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path_.copy(address.sun_path, path_.size());
  const int other = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(other, 1), 0);
  EXPECT_EQ(startUnix(path_), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("somebody listens there"));
  close(other);
  EXPECT_EQ(startUnix(path_), 0) << PIGrpcServerLastError();
  stop();
  std::ofstream(path_) << "notes";
  EXPECT_EQ(startUnix(path_), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("no socket"));
  EXPECT_EQ(startUnix("relative.sock"), -1);
  EXPECT_EQ(startUnix(home_.file(std::string(120, 'x'))), -1);
}

}  // namespace
