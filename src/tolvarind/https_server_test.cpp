// The loopback HTTPS endpoint against a real TLS client, inside the test
// sandbox, with the test peer standing in for ventrald on its socket.
#include <arpa/inet.h>
#include <event2/event.h>
#include <event2/http.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/resource.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "CSComm.h"
#include "log_capture.h"
#include "peer_server.h"
#include "sandbox.h"
#include "sdp_paths.h"
#include "signals.h"
#include "tolvarind.h"
#include "util.h"

extern char** environ;

namespace {
using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int kPort = 7103;
constexpr char kPage[] = "<html><body><p>https server</p></body></html>";
const int E = google::GLOG_ERROR;

std::string Get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path) << text;
}

template <typename F>
bool Within5s(F done) {
  for (auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(10ms))
    if (done()) return true;
  return false;
}

void ReadLimit(int fd, std::chrono::milliseconds limit) {
  const timeval tv{limit.count() / 1000, (limit.count() % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

// A TCP socket connected to ip:port with a 5 s read limit; -errno on failure.
int Dial(const char* ip, int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{AF_INET, htons(port), {}, {}};
  inet_pton(AF_INET, ip, &addr.sin_addr);
  ReadLimit(fd, 5s);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  const int err = errno;
  close(fd);
  return -err;
}

bool Listening() {
  const int fd = Dial("127.0.0.1", kPort);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

struct TlsReply {
  int refusal = -1;  // 0 after a handshake, else OpenSSL's reason code
  int group = 0;     // key-exchange group negotiated
  std::string text;  // all the server sent until it closed or stayed quiet for `quiet`
};

// One request over TLS from 127.0.0.1. The client's security level is 0, so
// any refusal is the server's.
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
  const int fd = Dial("127.0.0.1", kPort);
  if (fd < 0) return r;
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx.get()), SSL_free);
  SSL_set_fd(ssl.get(), fd);
  if (SSL_connect(ssl.get()) == 1) {
    r.refusal = 0;
    r.group = SSL_get_negotiated_group(ssl.get());
    ReadLimit(fd, quiet);
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

class HttpsEndpointTest : public ::testing::Test {
 protected:
  void SetUp() override {
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

  // Runs the endpoint on a thread of its own, listening.
  void Start() {
    endpoint_ = std::async(std::launch::async, [this] { return client_.start_https_server(); });
    ASSERT_TRUE(Within5s(Listening));
  }
  // Stops it the way an operator does, SIGINT to the process: the loop's
  // result, or -100 when it did not end.
  int Interrupt() {
    if (endpoint_.wait_for(0s) != std::future_status::ready) kill(getpid(), SIGINT);
    return endpoint_.wait_for(5s) == std::future_status::ready ? endpoint_.get() : -100;
  }
  void TearDown() override {
    if (endpoint_.valid()) Interrupt();
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
  std::future<int> endpoint_;
};

TEST_F(HttpsEndpointTest, ServesTls12AndLaterWithP256OnLoopbackOnly) {
  Start();
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
    EXPECT_EQ(r.group, r.refusal == 0 ? NID_X9_62_prime256v1 : 0);
  }
  EXPECT_EQ(Dial(testsupport::kSandboxIpv4, kPort), -ECONNREFUSED);
}

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
  Start();
  std::vector<std::string> frames;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target.substr(0, 20));
    // An unanswered request is given up after a short quiet spell.
    TlsReply r = Fetch(Get(c.target), c.status.empty() ? 300ms : 5s);
    EXPECT_EQ(r.text.substr(0, c.status.size()), c.status);
    EXPECT_EQ(r.text.empty(), c.status.empty());
    EXPECT_EQ(r.text.rfind(kPage) == r.text.size() - strlen(kPage), c.status == "HTTP/1.1 200 OK");
    EXPECT_TRUE(log_.has(c.log)) << c.log;
    if (!c.frame.empty()) frames.push_back(c.frame);
  }
  // A body is never read, so one announced over 64 KiB is refused before the
  // handler runs rather than held in the daemon's memory: no frame, no line.
  EXPECT_EQ(Fetch("POST /?big=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 70000\r\n\r\n")
                .text.substr(0, 12),
            "HTTP/1.1 413");
  EXPECT_FALSE(log_.has("got query:big=1"));
  EXPECT_EQ(Queries(frames.size()), frames);
  EXPECT_EQ(Interrupt(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Exiting.\n");
}

TEST_F(HttpsEndpointTest, FailedSetUpEndsTheRunAndDropsTheHandler) {
  // A port in use is deliberately not fatal: the loop has nothing to wait for.
  WriteFile(sdp_paths::kSyscfgIni, "[Pelgrane]\nvrekhttpsport=7199\n");
  const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{AF_INET, htons(7199), {htonl(INADDR_LOOPBACK)}, {}};
  ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(holder, 1), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_.start_https_server(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Exiting.\n");
  close(holder);
  const auto texts = log_.texts();
  const auto bind_failed = std::find(texts.begin(), texts.end(), "Failed to bind to port");
  EXPECT_NE(std::find(bind_failed, texts.end(), "Failed to run message loop."), texts.end());
  EXPECT_TRUE(log_.has("client cert:/opt/apps/morvasta/certs/SDProot.crt"));
  EXPECT_FALSE(shutdown_handler);  // a later SIGINT must not reach the ended loop

  fs::remove(sdp_paths::kSyscfgIni);
  WriteFile(sdp_paths::kCertinfoIni, "[Cert]\nCliKeyName=absent.key\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_.start_https_server(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(log_.has("client key:/opt/apps/morvasta/certs/absent.key"));
  EXPECT_TRUE(log_.has("Failed to load private key file.", E));
  EXPECT_FALSE(shutdown_handler);
}

// Without an SSL object evhttp reads a connection as plain HTTP; the endpoint
// must close it unanswered instead of serving and relaying it in the clear.
TEST_F(HttpsEndpointTest, FailedSslObjectDoesNotDowngradeToPlainHttp) {
  // SSL_new fails on a null context, as it does when memory runs out.
  std::unique_ptr<event_base, decltype(&event_base_free)> base(event_base_new(), event_base_free);
  std::unique_ptr<evhttp, decltype(&evhttp_free)> http(evhttp_new(base.get()), evhttp_free);
  evhttp_set_bevcb(http.get(), tolvarind::create_ssl_bufferevent, nullptr);
  evhttp_set_gencb(http.get(), tolvarind::handle_https_request, &client_);
  ASSERT_EQ(evhttp_bind_socket(http.get(), "127.0.0.1", 7104), 0);

  auto reply = std::async(std::launch::async, [] {
    std::string text = "no connection";
    const int fd = Dial("127.0.0.1", 7104);
    const std::string request = Get("/leak?x=1");
    if (fd < 0 || send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return text;
    char buf[4096];
    ssize_t n;
    for (text.clear(); (n = recv(fd, buf, sizeof buf, 0)) > 0;) text.append(buf, n);
    if (n < 0 && errno != ECONNRESET) text = "no end";  // a read time-out, not a close
    close(fd);
    return text;
  });
  // The loop runs here, in short turns, until the client is done.
  for (auto end = std::chrono::steady_clock::now() + 10s;
       reply.wait_for(0s) != std::future_status::ready && std::chrono::steady_clock::now() < end;) {
    const timeval turn{0, 10000};
    event_base_loopexit(base.get(), &turn);
    event_base_dispatch(base.get());
  }
  ASSERT_EQ(reply.wait_for(0s), std::future_status::ready);
  EXPECT_EQ(reply.get(), "");
  EXPECT_TRUE(log_.has("Failed to create SSL object.", E));
  EXPECT_TRUE(log_.has("not a TLS connection, closed", E));
  EXPECT_EQ(log_.count_prefix("got query:"), 0);  // the relay follows that line
  for (const auto& f : peer_.Frames()) EXPECT_NE(f.s_cmd, SDP_PROTO_HTTPS_QUERY);
  ERR_clear_error();
}

// What the listener has accepted into its queue but the endpoint not yet taken.
int AcceptQueue(int port) {
  std::ifstream in("/proc/net/tcp");
  char local[32];
  std::snprintf(local, sizeof local, "0100007F:%04X", port);
  for (std::string line; std::getline(in, line);) {
    char addr[64], rem[64];
    unsigned st = 0, tx = 0, rx = 0;
    if (std::sscanf(line.c_str(), " %*d: %63s %63s %x %x:%x", addr, rem, &st, &tx, &rx) == 5 &&
        addr == std::string(local) && st == 0x0A)
      return static_cast<int>(rx);
  }
  return -1;
}

// Whether the server closed `fd` within `limit` (end of stream or reset).
bool ClosedWithin(int fd, std::chrono::milliseconds limit) {
  ReadLimit(fd, limit);
  char c;
  const ssize_t n = recv(fd, &c, 1, 0);
  return n == 0 || (n < 0 && errno == ECONNRESET);
}

double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// A local user cannot exhaust the endpoint: idle, slow and surplus connections
// are closed or wait outside, accept errors pause the listener instead of
// spinning, and the endpoint and the process serve afterwards.
TEST_F(HttpsEndpointTest, IdleSlowAndSurplusConnectionsCannotExhaustTheEndpoint) {
  fs::remove(sdp_paths::kCertinfoIni);  // as an earlier test may have left them
  fs::remove(sdp_paths::kSyscfgIni);
  client_.SetHttpsLimits({1000ms, 4, 300ms});
  Start();
  ASSERT_TRUE(Within5s([] { return AcceptQueue(kPort) == 0; }));  // the probe is gone

  // Six idle connections: four taken, two left waiting by the kernel; each
  // closed by its deadline, before any handshake.
  std::vector<int> idle;
  for (int i = 0; i < 6; ++i) idle.push_back(Dial("127.0.0.1", kPort));
  EXPECT_TRUE(Within5s([] { return AcceptQueue(kPort) == 2; })) << AcceptQueue(kPort);
  for (int fd : idle) {
    EXPECT_TRUE(ClosedWithin(fd, 4s));
    close(fd);
  }

  // A slow request, a byte every 100 ms after the handshake, never finishes.
  {
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()),
                                                          SSL_CTX_free);
    const int fd = Dial("127.0.0.1", kPort);
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx.get()), SSL_free);
    SSL_set_fd(ssl.get(), fd);
    ASSERT_EQ(SSL_connect(ssl.get()), 1);
    const auto start = std::chrono::steady_clock::now();
    const std::string request = "GET /?slow HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Pad: ";
    ReadLimit(fd, 100ms);
    char c;
    for (size_t i = 0; std::chrono::steady_clock::now() - start < 5s; ++i) {
      if (SSL_write(ssl.get(), &request[i % request.size()], 1) <= 0) break;
      if (SSL_read(ssl.get(), &c, 1) == 0 || SSL_get_error(ssl.get(), 0) == SSL_ERROR_SSL) break;
      ERR_clear_error();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
    ERR_clear_error();
    close(fd);
  }

  // Accept fails for want of descriptors: the listener rests, one line a pause.
  std::vector<int> waiting;
  for (int i = 0; i < 3; ++i) waiting.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const int lowestFree = dup(0);
  close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = lowestFree;  // no new descriptor anywhere in the process
  testing::internal::CaptureStderr();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  sockaddr_in addr{AF_INET, htons(kPort), {htonl(INADDR_LOOPBACK)}, {}};
  for (int fd : waiting) connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  const double cpu = CpuSeconds();
  std::this_thread::sleep_for(1s);  // a spinning loop would burn this whole second
  const double spent = CpuSeconds() - cpu;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_LT(spent, 0.5);
  const int paused = log_.count_prefix("accept failed: Too many open files, listener paused");
  EXPECT_GE(paused, 1);
  EXPECT_LE(paused, 5);
  // libevent's own warning, once per failed accept when nobody handles it.
  EXPECT_EQ(testing::internal::GetCapturedStderr().find("Error from accept"), std::string::npos);
  for (int fd : waiting) {
    EXPECT_TRUE(ClosedWithin(fd, 4s));  // taken once the pause ends, closed by the deadline
    close(fd);
  }

  // Served afterwards: a request is relayed and answered, a command runs.
  EXPECT_NE(Fetch(Get("/after?ok=1")).text.find(kPage), std::string::npos);
  EXPECT_EQ(Queries(1), std::vector<std::string>{std::string("ok=1\0", 5)});
  std::string output;
  EXPECT_EQ(util::system_output("echo served", output, 3), 1);
  EXPECT_EQ(output, "served\n");
}

// The daemon runs the endpoint only when asked; a first SIGINT then ends the
// endpoint and leaves the daemon running, a second one ends the daemon.
TEST_F(HttpsEndpointTest, DaemonRunsTheEndpointOnlyWithItsSwitch) {
  struct Daemon {
    explicit Daemon(std::vector<const char*> argv) {
      argv.push_back(nullptr);
      posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv.data()), environ);
    }
    ~Daemon() {
      if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
    // SIGINT, then the signal that ended the process (0 if none did in time).
    int Interrupt() {
      kill(pid, SIGINT);
      int status = 0;
      if (!Within5s([&] { return waitpid(pid, &status, WNOHANG) == pid; })) return 0;
      pid = -1;
      return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    pid_t pid = -1;
  } plain({TOLVARIND_EXE}), served({TOLVARIND_EXE, "--https-endpoint"});
  ASSERT_GT(plain.pid, 0);
  ASSERT_GT(served.pid, 0);
  const auto is_register = [](const sdppeer::Frame& f) { return f.s_cmd == SDP_PROTO_REGISTER; };
  EXPECT_EQ(peer_.WaitFrames(2, 15s, is_register).size(), 2u);
  EXPECT_TRUE(Within5s(Listening));
  EXPECT_NE(Fetch(Get("/d?x=1")).text.find(kPage), std::string::npos);
  EXPECT_EQ(Queries(1), std::vector<std::string>{std::string("x=1\0", 4)});

  // No endpoint in the plain daemon, so SIGINT keeps its default action there.
  EXPECT_EQ(plain.Interrupt(), SIGINT);
  kill(served.pid, SIGINT);
  EXPECT_TRUE(Within5s([] { return !Listening(); }));
  EXPECT_EQ(waitpid(served.pid, nullptr, WNOHANG), 0);  // still running
  EXPECT_EQ(served.Interrupt(), SIGINT);                // the earlier SIGINT action is back
}

}  // namespace
