// The loopback HTTPS endpoint against a real TLS client, inside the test
// sandbox, with the test peer standing in for ventrald on its socket.
#include <arpa/inet.h>
#include <event2/event.h>
#include <event2/http.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CSComm.h"
#include "log_capture.h"
#include "peer_server.h"
#include "sandbox.h"
#include "sdp_paths.h"
#include "signals.h"
#include "tolvarind.h"

extern char** environ;

namespace {
using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int kDefaultPort = 7103;
constexpr char kPage[] = "<html><body><p>https server</p></body></html>";

std::string Get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path) << text;
}

// 0 when ip:port accepts a TCP connection, else the errno of the connect.
int ConnectError(const char* ip, int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_pton(AF_INET, ip, &addr.sin_addr);
  int err = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? 0 : errno;
  close(fd);
  return err;
}

bool WaitListening(bool listening) {
  for (auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(10ms))
    if ((ConnectError("127.0.0.1", kDefaultPort) == 0) == listening) return true;
  return false;
}

struct TlsReply {
  bool handshake = false;
  int refusal = 0;   // OpenSSL reason code when the handshake failed
  int group = 0;     // key-exchange group negotiated
  std::string text;  // all the server sent until it closed or stayed quiet for `quiet`
};

// One request over TLS from 127.0.0.1. A non-zero `version` pins the client to
// it; the client's security level is 0, so any refusal is the server's.
TlsReply Fetch(const std::string& request, std::chrono::milliseconds quiet = 5s, int version = 0,
               const char* groups = nullptr) {
  TlsReply r;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()),
                                                        SSL_CTX_free);
  SSL_CTX_set_security_level(ctx.get(), 0);
  if (version != 0) {
    SSL_CTX_set_min_proto_version(ctx.get(), version);
    SSL_CTX_set_max_proto_version(ctx.get(), version);
  }
  if (groups != nullptr) SSL_CTX_set1_groups_list(ctx.get(), groups);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto read_limit = [fd](std::chrono::milliseconds limit) {
    timeval tv{limit.count() / 1000, (limit.count() % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  };
  read_limit(5s);  // the handshake gets the long limit whatever `quiet` is
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(kDefaultPort);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx.get()), SSL_free);
  SSL_set_fd(ssl.get(), fd);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      SSL_connect(ssl.get()) == 1) {
    r.handshake = true;
    r.group = SSL_get_negotiated_group(ssl.get());
    read_limit(quiet);
    SSL_write(ssl.get(), request.data(), static_cast<int>(request.size()));
    char buf[16384];
    for (int n; (n = SSL_read(ssl.get(), buf, sizeof buf)) > 0;) r.text.append(buf, n);
  } else {
    r.refusal = ERR_GET_REASON(ERR_peek_last_error());
  }
  ERR_clear_error();
  ssl.reset();
  close(fd);
  return r;
}

struct PlainReply {
  bool closed = false;  // the server ended the connection (not a read time-out)
  std::string text;
};

// One request in plain HTTP to 127.0.0.1:`port`, read until the server closes.
PlainReply PlainFetch(int port, const std::string& request) {
  PlainReply r;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval tv{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) r.text.append(buf, n);
    r.closed = n == 0 || errno == ECONNRESET;
  }
  close(fd);
  return r;
}

// start_https_server() on a thread of its own, stopped the way an operator
// stops it: SIGINT to the process.
class Endpoint {
 public:
  explicit Endpoint(tolvarind& client)
      : result_(std::async(std::launch::async, [&client] { return client.start_https_server(); })) {
  }
  ~Endpoint() {
    if (result_.valid()) Interrupt();
  }
  // The loop's result, or -100 when it did not end.
  int Interrupt() {
    if (result_.wait_for(0s) != std::future_status::ready) kill(getpid(), SIGINT);
    if (result_.wait_for(5s) != std::future_status::ready) return -100;
    return result_.get();
  }

 private:
  std::future<int> result_;
};

// The daemon executable, killed at the end of the test if still running.
struct Daemon {
  explicit Daemon(std::vector<const char*> argv) {
    argv.push_back(nullptr);
    posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv.data()), environ);
  }
  ~Daemon() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
  }
  // SIGINT, then the number of the signal that ended the process (0 if none did in time).
  int Interrupt() {
    kill(pid, SIGINT);
    int status = 0;
    for (auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(10ms))
      if (waitpid(pid, &status, WNOHANG) == pid) {
        pid = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
      }
    return 0;
  }
  pid_t pid = -1;
};

std::set<int> OpenFds() {
  std::set<int> fds;
  for (const auto& e : fs::directory_iterator("/proc/self/fd"))
    fds.insert(std::stoi(e.path().filename()));
  return fds;
}

class HttpsEndpointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove(sdp_paths::kSyscfgIni);
    fs::remove(sdp_paths::kCertinfoIni);
    // A fresh pair under the default names on every run; never a file from the tree.
    const std::string dir = sdp_paths::kCertDir;
    fs::create_directories(dir);
    ASSERT_EQ(std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                           "-days 1 -subj /CN=127.0.0.1 -keyout " +
                           dir + "/SDProot.key -out " + dir + "/SDProot.crt 2>/dev/null")
                              .c_str()),
              0);
    WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=sbx\n");
    ASSERT_TRUE(peer_.Listen(sdp_paths::kDaemonSocket));
    ASSERT_TRUE(client_.init());
    ASSERT_TRUE(peer_.WaitFrame(SDP_PROTO_REGISTER, 5s));  // in before the slate is wiped
    peer_.ClearFrames();
  }

  // Bodies of the query frames the peer holds, once `count` are in.
  std::vector<std::string> Queries(size_t count) {
    std::vector<std::string> bodies;
    for (const auto& f : peer_.WaitFrames(
             count, 5s, [](const sdppeer::Frame& f) { return f.s_cmd == SDP_PROTO_HTTPS_QUERY; })) {
      EXPECT_EQ(f.m_cmd, MCMD_TO_DAEMON);
      bodies.push_back(f.body);
    }
    return bodies;
  }

  testsupport::LogCapture log_;
  sdppeer::PeerServer peer_;
  tolvarind client_;
};

TEST_F(HttpsEndpointTest, RelaysEachRawQueryAndAnswersWithTheFixedPage) {
  const std::string long_query(64510, 'q');
  const struct {
    std::string target, status, frame, log;
  } cases[] = {
      // Rows without a frame come first: a stray frame would arrive before a later one.
      {"/", "", "", "got query failed"},
      {"/x?a<b", "HTTP/1.1 400", "", "It's not a good URI. Sending BADREQUEST"},
      {"/open?id=42", "HTTP/1.1 200 OK", std::string("id=42\0", 6), "got query:id=42"},
      {"/a/b?a%20b", "HTTP/1.1 200 OK", std::string("a%20b\0", 6), "got query:a%20b"},
      {"/?", "HTTP/1.1 200 OK", std::string(1, '\0'), "got query:"},
      {"/?" + long_query, "HTTP/1.1 200 OK", long_query.substr(0, 64503),
       "warning msglen:64511 over max msglen:64503 cut message m_cmd:1 s_cmd:4371"},
  };
  testing::internal::CaptureStdout();
  Endpoint endpoint(client_);
  ASSERT_TRUE(WaitListening(true));
  std::vector<std::string> frames;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target.substr(0, 20));
    // An unanswered request is given up after a short quiet spell.
    TlsReply r = Fetch(Get(c.target), c.status.empty() ? 300ms : 5s);
    ASSERT_TRUE(r.handshake);
    EXPECT_EQ(r.text.substr(0, c.status.size()), c.status);
    if (c.status.empty()) {
      EXPECT_EQ(r.text, "");
    } else if (c.status == "HTTP/1.1 200 OK") {
      EXPECT_EQ(r.text.rfind(kPage), r.text.size() - strlen(kPage));
    }
    EXPECT_TRUE(log_.has(c.log)) << c.log;
    if (!c.frame.empty()) frames.push_back(c.frame);
  }
  EXPECT_EQ(Queries(frames.size()), frames);
  EXPECT_EQ(endpoint.Interrupt(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Exiting.\n");
}

TEST_F(HttpsEndpointTest, ServesOnlyTls12AndLaterWithP256OnLoopbackWithCloseOnExecDescriptors) {
  const std::set<int> before = OpenFds();
  Endpoint endpoint(client_);
  ASSERT_TRUE(WaitListening(true));
  const struct {
    int version;
    const char* groups;
    int refusal;
  } cases[] = {
      {TLS1_1_VERSION, nullptr, SSL_R_TLSV1_ALERT_PROTOCOL_VERSION},
      {TLS1_2_VERSION, nullptr, 0},
      {TLS1_3_VERSION, nullptr, 0},
      {TLS1_3_VERSION, "X25519", SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.version) + (c.groups ? c.groups : ""));
    TlsReply r = Fetch(Get("/tls?v"), 5s, c.version, c.groups);
    EXPECT_EQ(r.refusal, c.refusal);
    EXPECT_EQ(r.handshake, c.refusal == 0);
    if (r.handshake) {
      EXPECT_EQ(r.group, NID_X9_62_prime256v1);
    }
  }
  EXPECT_EQ(ConnectError(testsupport::kSandboxIpv4, kDefaultPort), ECONNREFUSED);

  // With a connection held open, every descriptor the endpoint has is close-on-exec.
  auto held = std::async(std::launch::async, [] { return Fetch(Get("/"), 500ms); });
  ASSERT_TRUE(log_.wait_prefix("got query failed", 5s));
  int checked = 0;
  for (int fd : OpenFds()) {
    const int flags = fcntl(fd, F_GETFD);
    if (before.count(fd) != 0 || flags < 0) continue;
    EXPECT_TRUE(flags & FD_CLOEXEC) << "descriptor " << fd;
    ++checked;
  }
  EXPECT_GE(checked, 3);  // at least the poller, the listener and the connection
  EXPECT_EQ(held.get().text, "");
  EXPECT_EQ(endpoint.Interrupt(), 0);
}

TEST_F(HttpsEndpointTest, PortInUseStillEndsCleanlyWithZero) {
  WriteFile(sdp_paths::kSyscfgIni, "[Pelgrane]\nvrekhttpsport=7199\n");
  int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(7199);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(holder, 1), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_.start_https_server(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Exiting.\n");
  close(holder);
  const auto texts = log_.texts();
  const auto bind_failed = std::find(texts.begin(), texts.end(), "Failed to bind to port");
  ASSERT_NE(bind_failed, texts.end());
  EXPECT_NE(std::find(bind_failed, texts.end(), "Failed to run message loop."), texts.end());
  EXPECT_TRUE(log_.has("client cert:/opt/apps/morvasta/certs/SDProot.crt"));
  EXPECT_FALSE(shutdown_handler);  // a later SIGINT must not reach the ended loop
}

TEST_F(HttpsEndpointTest, MissingKeyFileFailsSetUp) {
  WriteFile(sdp_paths::kCertinfoIni, "[Cert]\nCliKeyName=absent.key\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_.start_https_server(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(log_.has("client key:/opt/apps/morvasta/certs/absent.key"));
  EXPECT_TRUE(log_.has("Failed to load private key file.", google::GLOG_ERROR));
  EXPECT_EQ(ConnectError("127.0.0.1", kDefaultPort), ECONNREFUSED);
}

// Without an SSL object evhttp reads a connection as plain HTTP; the endpoint
// must close it unanswered instead of serving and relaying it in the clear.
TEST_F(HttpsEndpointTest, FailedSslObjectDoesNotDowngradeToPlainHttp) {
  // SSL_new fails on a null context, as it does when memory runs out.
  std::unique_ptr<event_base, decltype(&event_base_free)> base(event_base_new(), event_base_free);
  std::unique_ptr<evhttp, decltype(&evhttp_free)> http(evhttp_new(base.get()), evhttp_free);
  evhttp_set_bevcb(http.get(), tolvarind::create_ssl_bufferevent, nullptr);
  evhttp_set_gencb(http.get(), tolvarind::handle_https_request, &client_);
  evhttp_bound_socket* bound = evhttp_bind_socket_with_handle(http.get(), "127.0.0.1", 0);
  ASSERT_NE(bound, nullptr);
  sockaddr_in addr{};
  socklen_t addr_len = sizeof addr;
  ASSERT_EQ(
      getsockname(evhttp_bound_socket_get_fd(bound), reinterpret_cast<sockaddr*>(&addr), &addr_len),
      0);

  auto reply = std::async(std::launch::async, [port = ntohs(addr.sin_port)] {
    return PlainFetch(port, Get("/leak?x=1"));
  });
  // The loop runs here, in short turns, until the client is done.
  for (auto end = std::chrono::steady_clock::now() + 10s;
       reply.wait_for(0s) != std::future_status::ready && std::chrono::steady_clock::now() < end;) {
    const timeval turn{0, 10000};
    event_base_loopexit(base.get(), &turn);
    event_base_dispatch(base.get());
  }
  ASSERT_EQ(reply.wait_for(0s), std::future_status::ready);
  const PlainReply r = reply.get();
  EXPECT_TRUE(r.closed);
  EXPECT_EQ(r.text, "");
  EXPECT_TRUE(log_.has("Failed to create SSL object.", google::GLOG_ERROR));
  EXPECT_TRUE(log_.has("not a TLS connection, closed", google::GLOG_ERROR));
  EXPECT_EQ(log_.count_prefix("got query:"), 0);  // the relay follows that line
  for (const auto& f : peer_.Frames()) EXPECT_NE(f.s_cmd, SDP_PROTO_HTTPS_QUERY);
  ERR_clear_error();
}

// The daemon runs the endpoint only when asked; a first SIGINT then ends the
// endpoint and leaves the daemon running, a second one ends the daemon.
TEST_F(HttpsEndpointTest, DaemonRunsTheEndpointOnlyWithItsSwitch) {
  Daemon plain({TOLVARIND_EXE});
  Daemon served({TOLVARIND_EXE, "--https-endpoint"});
  ASSERT_GT(plain.pid, 0);
  ASSERT_GT(served.pid, 0);
  EXPECT_EQ(
      peer_
          .WaitFrames(2, 15s, [](const sdppeer::Frame& f) { return f.s_cmd == SDP_PROTO_REGISTER; })
          .size(),
      2u);
  EXPECT_TRUE(WaitListening(true));
  EXPECT_NE(Fetch(Get("/d?x=1")).text.find(kPage), std::string::npos);
  EXPECT_EQ(Queries(1), std::vector<std::string>{std::string("x=1\0", 4)});

  // No endpoint in the plain daemon, so SIGINT keeps its default action there.
  EXPECT_EQ(plain.Interrupt(), SIGINT);
  kill(served.pid, SIGINT);
  EXPECT_TRUE(WaitListening(false));
  EXPECT_EQ(waitpid(served.pid, nullptr, WNOHANG), 0);  // still running
  EXPECT_EQ(served.Interrupt(), SIGINT);                // the earlier SIGINT action is back
}

}  // namespace
